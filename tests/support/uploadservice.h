#pragma once

#include "scriptedserver.h"

#include <QtTest>

// The upload service's three addresses, scripted on a ScriptedServer:
// "/upload/info" hands out a session (by default one whose parts of chunkSize
// bytes cover the file the request names, under its "fileMD5" as upload id),
// parts are answered 200 and "/upload/complete" succeeds. The fields may be
// changed while the server runs; the next request sees them.
class UploadService
{
public:
    explicit UploadService(ScriptedServer *server);

    // The "/upload/info" answer for a session with these parts; "exist" says
    // the service has the file already. held: bytes the service holds of a part.
    QByteArray session(const QString &uploadID, qint64 chunkSize, const QList<int> &parts,
                       bool exist = false, const QMap<int, int> &held = {}) const;
    QList<ScriptedRequest> requestsTo(const QString &path) const;

    qint64 chunkSize = 4;
    QByteArray info;           // when set, the answer to every "/upload/info"
    bool holdInfo = false;     // its answer waits for ScriptedServer::release()
    bool holdParts = false;    // so do the parts past answeredParts
    int answeredParts = 0;
    bool holdComplete = false;
    QMap<int, int> partStatus; // part number -> HTTP status other than 200

private:
    ScriptedResponse answer(const ScriptedRequest &request) const;

    ScriptedServer *m_server; // borrowed
};

#pragma once

#include "core/zterrorcode.h"

#include <QByteArray>
#include <QFileInfo>
#include <QList>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QStringList>
#include <QVariantMap>

class QNetworkAccessManager;
class QNetworkReply;

// One requested download: the remote file, the local file it becomes, and what
// a probe of the server said about it. The probe's entity tag names the task's
// folder under the temporary storage path, where its chunks wait for the merge.
//
// The host names the destination as a file path ("path") and its name
// ("filename"); m_path is the folder of that path. When the destination exists
// already, the task takes a free name such as "a(1).txt", but keeps asking the
// server for the file under the name the host asked for (requestedName). That
// free name is reserved at once with an empty file: a run that produces the
// file keeps it (keepReservations), any other ending gives it up
// (releaseReservations). A task that takes in another of the same content
// (appendSameFile) takes its reservation along.
class DownloadTask : public QObject
{
    Q_OBJECT
public:
    DownloadTask();
    // Copies every field but sameFileTargets.
    DownloadTask(const DownloadTask &other);
    ~DownloadTask() override;

    // prepare(), then the probe and applyProbe(): 0, or why the task cannot run.
    ZTErrorCode isValid(const QString &filePath, const QString &url, const QString &fileName);
    // What isValid() does before the probe: takes the destination and the URL,
    // and makes the destination's folder.
    ZTErrorCode prepare(const QString &filePath, const QString &url, const QString &fileName);
    bool init(const QString &url);
    // Probes the server (a POST for bytes 0-1), then derives as applyProbe() does.
    bool parseTask();
    // The probe in parts, for a caller that waits for many at once: sendProbe()
    // posts it through `access`; once the reply has finished, readProbe() takes
    // what it says and endProbe() releases it; applyProbe() then derives the rest.
    QNetworkReply *sendProbe(QNetworkAccessManager &access);
    void readProbe(QNetworkReply *reply);
    void endProbe(QNetworkReply *reply);
    // Gives up a probe in flight: its wait ends at once and the probe fails.
    void abortProbe();
    void parseHeaders(QNetworkReply *reply);
    // What parseHeaders reads from the probe's reply: its HTTP status and its
    // raw header pairs, in the form QNetworkReply::rawHeaderPairs() gives them.
    void parseHeaderPairs(int statusCode, const QList<QPair<QByteArray, QByteArray>> &headers);
    // From what the probe found: the folder tag, a free destination name (an
    // empty placeholder file reserves it) and the temporary folder. False when
    // the size, the tag or the name is still missing.
    bool applyProbe();
    QString checkFileIsExist(const QString &path);
    bool appendSameFile(const DownloadTask &other);
    QVariantMap toMap() const;
    // The folder exists and the URL is valid.
    bool checkTask() const;
    // Removes the empty files that reserved free names for this task, those
    // still there and still empty; a file with anything in it is left alone.
    void releaseReservations();
    // The reserved names now hold the downloaded files: nothing to give up.
    void keepReservations() { m_reservations.clear(); }

    bool rangeSupported = false;
    QList<QFileInfo> sameFileTargets;
    QString fileName;
    QString m_path;
    QString filePath;
    QString url;
    ZTErrorCode status = Zephyrtide::Error::NoError;
    qint64 fileSize = -1;
    QString etag;
    qint64 downloadedSize = 0;
    QString tempDir;
    QString requestedName; // the name the server knows the file by
    QString serverEtag;    // the tag as the probe saw it, which every chunk answer must carry
    QByteArray sha256;     // of the whole file, when the probe's Repr-Digest states it; 32 bytes

private:
    QPointer<QNetworkReply> m_probe; // while parseTask() waits for it
    QStringList m_reservations;      // empty files made to reserve names, until kept or released
    // The folder tag for content known by `identity`: the MD5 of the size and it, in hex.
    QString contentTag(const QString &identity) const;
};

#pragma once

#include "core/zterrorcode.h"
#include "plugin/ztserver.h"
#include "scriptedserver.h"
#include "testenvironment.h"

#include <zephyrtide/manager.h>

#include <QtTest>

#include <functional>

class Downloader;
class DownloadTask;

// The download engine against a scripted server, driven as a host drives it
// (root's command slots) or through a Downloader. setUp() from init(), tearDown() from cleanup().
class DownloadFixture
{
public:
    static constexpr qint64 MiB = 1024 * 1024;
    // No code a batch ends with: -1 is no value of the enumeration, and the
    // sanitizer build refuses to load it as one.
    static constexpr ZTErrorCode NotEnded = ZTErrorCode(1);

    // Fresh folders, server and host, chunks of 1 MiB; the host talks to the service at address, if given.
    bool setUp(const QString &address = QString());
    void tearDown();

    // Serves files of this size by the name the body asks for, with ranges, the
    // name as ETag and the SHA-256; shape then changes an answer as a test needs.
    void serve(qint64 size);
    QByteArray contentOf(const QByteArray &name) const;
    QByteArray digestOf(const QByteArray &name) const;
    void setContent(const QByteArray &name, const QByteArray &content) { m_contents[name] = content; m_digests.remove(name); }
    // The content folder of a file served here: its size and its tag make it.
    QString chunkFolder(const QByteArray &tag) const;
    // A host's batch: each name, its last part as the file's, into folder.
    QVariantMap batch(const QStringList &names, const QString &folder) const;
    // A task probed and added to the downloader, which shares it; null when refused.
    QSharedPointer<DownloadTask> addTask(Downloader &downloader, const QString &destination, const QString &name) const;
    // One file through a downloader of its own; whenStarted runs once it has
    // started. The batch's code, or NotEnded when it did not end in time.
    ZTErrorCode downloadOne(const QString &destination, const QString &name,
                            const std::function<void(Downloader &)> &whenStarted = nullptr);

    static qint64 bytesIn(const QString &folder);
    static QStringList filesIn(const QString &folder) { return QDir(folder).entryList(QDir::Files | QDir::Hidden, QDir::Name); }
    static bool writeFile(const QString &path, const QByteArray &bytes);

    TestEnvironment environment;
    QScopedPointer<QTemporaryDir> temporary; // the engine's chunk folders
    QScopedPointer<QTemporaryDir> target;
    QScopedPointer<ScriptedServer> server;
    QScopedPointer<Zephyrtide::Manager> host;
    QScopedPointer<ZTServer> root;
    std::function<void(const ScriptedRequest &, ScriptedResponse &)> shape;
    bool statesDigest = true; // the content's SHA-256 in each answer

private:
    mutable QMap<QByteArray, QByteArray> m_contents;
    mutable QMap<QByteArray, QByteArray> m_digests;
    qint64 m_size = 0;
};

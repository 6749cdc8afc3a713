#include "clouduploader.h"

#include "cloudchunkuploader.h"
#include "cloudsinglefileuploader.h"
#include "fileitem.h"
#include "core/logging.h"
#include "uploadglobal.h"

#include <QPointer>

namespace {
// Every upload of this plugin is filed under one category, whatever the host sends.
const char UploadCategory[] = "Zephyrtide";
}

CloudUploader::CloudUploader(QObject *parent)
    : QObject(parent)
{
}

CloudUploader::~CloudUploader()
{
    // A job dropped by its host (its reply went) leaves its files' last parts
    // in the cache, not only in memory.
    if (UploadGlobal *global = UploadGlobal::existingInstance())
        global->flush();
}

bool CloudUploader::setFiles(const QVariantList &files)
{
    if (files.isEmpty()) {
        qCCritical(ztLog) << "fail" << files;
        return false;
    }
    // What another process left in the cache since this one last looked.
    UploadGlobal::instance()->refresh();
    QList<QSharedPointer<FileItem>> items;
    for (const QVariant &file : files) {
        QVariantMap params = file.toMap();
        params.insert(QStringLiteral("category"), QString::fromLatin1(UploadCategory));
        auto item = QSharedPointer<FileItem>::create();
        if (!UploadGlobal::instance()->initFileItem(*item, params))
            return false;
        items.append(item);
    }
    return setFileItems(items);
}

bool CloudUploader::setFileItems(const QList<QSharedPointer<FileItem>> &items)
{
    qCDebug(ztLog) << "setfile item";
    if (items.isEmpty())
        return false;
    for (const QSharedPointer<FileItem> &item : items) {
        if (m_files.contains(item) || m_identifiers.contains(item->identifier))
            continue;
        auto uploader = QSharedPointer<CloudSingleFileUploader>::create();
        uploader->setFileItem(item);
        m_files.insert(item, uploader);
        m_identifiers.insert(item->identifier);
        m_totalSize += item->totalSize;
        m_counted.insert(item.data(), item->bytesSent);
        m_sent += item->bytesSent;
        // The item travels with the connection: QObject::sender() walks every
        // connection into this object, thousands in a job of many files.
        FileItem *moved = item.data();
        connect(uploader.data(), &CloudSingleFileUploader::finished, this, [this, moved] {
            if (moved->state == Upload::Finished && m_state == Running)
                m_finished.insert(moved);
            onFinished();
        });
        // The job sums what its files report, by what the one that moved
        // added; the slot gets the figure narrowed to int, and only logs it.
        connect(uploader.data(), &CloudSingleFileUploader::progress, this,
                [this, moved](qlonglong bytesSent, qlonglong bytesTotal) {
                    countProgress(moved, qMin(bytesSent, bytesTotal));
                    onUploadProgress(int(bytesSent));
                });
        connect(uploader.data(), &CloudSingleFileUploader::errorOccurred, this,
                &CloudUploader::onErrorOccurred);
    }
    return true;
}

void CloudUploader::countProgress(FileItem *item, qint64 sent)
{
    auto counted = m_counted.find(item);
    if (counted == m_counted.end())
        return;
    m_sent += sent - counted.value();
    counted.value() = sent;
}

bool CloudUploader::start()
{
    if (m_state == Running) {
        // Accepted: the job already runs.
        Q_EMIT errorOccurred(Zephyrtide::Error::AlreadyRunning);
        return true;
    }
    if (m_files.isEmpty()) {
        qCCritical(ztLog) << "file is empty" << m_files.keys();
        Q_EMIT errorOccurred(Zephyrtide::Error::ParseError);
        return false;
    }
    m_state = Running;
    m_finished.clear();
    QPointer<CloudUploader> self(this);
    const auto uploaders = m_files.values();
    for (int i = 0; i < uploaders.size(); ++i) {
        if (m_state != Running) {
            qCCritical(ztLog) << "already error" << m_state;
            return false;
        }
        qCDebug(ztLog) << "uploader starting..." << i;
        const bool started = uploaders.at(i)->start();
        if (!self)
            return false; // deleted while a file asked the service for its session
        if (m_state == Stopped || m_state == Aborted)
            return false; // while a file asked for its session: the files keep what stop()/abort() left
        if (!started) {
            clear();
            qCCritical(ztLog) << "error" << "bool __cdecl CloudUploader::start(void)";
            return false;
        }
        if (m_files.isEmpty() || m_state != Running)
            return false;
    }
    return true;
}

void CloudUploader::stop()
{
    m_state = Stopped;
    for (const auto &uploader : qAsConst(m_files))
        uploader->stop();
    // Every file's session is in the store before the host hears of the stop.
    UploadGlobal::instance()->flush();
    Q_EMIT errorOccurred(Zephyrtide::Error::Stopped);
}

void CloudUploader::abort()
{
    if (m_state == Running)
        m_state = Aborted;
    if (m_files.isEmpty()) {
        Q_EMIT errorOccurred(Zephyrtide::Error::Aborted);
        return;
    }
    QStringList aborted;
    for (auto it = m_files.cbegin(); it != m_files.cend(); ++it) {
        const QSharedPointer<FileItem> &item = it.key();
        if (item->state != Upload::Running)
            continue;
        item->state = Upload::Aborted;
        for (const auto &chunk : it.value()->chunkUploaders())
            chunk->stop();
        aborted.append(item->identifier);
    }
    // An aborted file starts from nothing next time; all of them in one write.
    UploadGlobal::instance()->removeInfos(aborted);
    UploadGlobal::instance()->flush();
    Q_EMIT errorOccurred(Zephyrtide::Error::Aborted);
}

void CloudUploader::onUploadProgress(int precent)
{
    if (m_files.isEmpty() || m_state == Finished || m_state == Stopped) {
        qCDebug(ztLog) << "clouduploader progress error" << m_files.isEmpty() << m_state;
        return;
    }
    qCDebug(ztLog) << "CloudUploader::onUploadProgress 3 : " << precent;
    const qint64 total = m_totalSize != 0 ? m_totalSize : 1;
    const qint64 sent = qMin(m_sent, total);
    if (sent == m_reportedSent && total == m_reportedTotal)
        return; // only a change goes out to the host
    m_reportedSent = sent;
    m_reportedTotal = total;
    Q_EMIT progress(sent, total);
}

void CloudUploader::onFinished()
{
    qCInfo(ztLog) << "CloudUploader" << "onFinished";
    // One finished() per run: a job that ended (stopped, aborted, failed or
    // done and cleared) reports nothing more.
    if (m_state != Running)
        return;
    // Counted as each file reports, not looked up: a job of many files does
    // not walk all of them each time one finishes.
    if (m_finished.size() < m_files.size()) {
        qCDebug(ztLog) << "not finished" << m_files.size() - m_finished.size();
        return;
    }
    for (auto it = m_files.cbegin(); it != m_files.cend(); ++it) {
        if (it.key()->state != Upload::Finished) {
            qCDebug(ztLog) << "not finished" << it.key()->fileName;
            return;
        }
    }
    m_state = Finished;
    if (!collectResults())
        return;
    const QVariantList results = m_results;
    clear();
    Q_EMIT finished(results);
}

bool CloudUploader::collectResults()
{
    for (auto it = m_files.cbegin(); it != m_files.cend(); ++it) {
        const FileItem &item = *it.key();
        if (item.category.isEmpty() || item.filePath.isEmpty() || item.dfsID.isEmpty()
            || item.bucket.isEmpty()) {
            qCCritical(ztLog) << "result error " << item.category << item.filePath << item.dfsID << item.bucket;
            qCCritical(ztLog) << "result set fail" << item.fileName;
            Q_EMIT errorOccurred(Zephyrtide::Error::GeneralFailure);
            return false;
        }
        m_results.append(QVariantMap{{QStringLiteral("category"), item.category},
                                     {QStringLiteral("contentType"), item.contentType},
                                     {QStringLiteral("filePath"), item.filePath},
                                     {QStringLiteral("private"), item.isPrivate},
                                     {QStringLiteral("dfsID"), item.dfsID},
                                     {QStringLiteral("bucket"), item.bucket},
                                     {QStringLiteral("cdnURL"), item.cdnURL},
                                     {QStringLiteral("preview"), item.preview}});
    }
    return true;
}

void CloudUploader::onErrorOccurred(ZTErrorCode error)
{
    if (m_files.isEmpty() || m_state == Finished)
        return;
    const bool first = m_state != Failed;
    m_state = Failed;
    // The first failure of the job reaches the store at once; the files
    // still running keep writing as their parts finish.
    if (first)
        UploadGlobal::instance()->flush();
    Q_EMIT errorOccurred(error);
}

void CloudUploader::clear()
{
    qCDebug(ztLog) << "uploader clear...";
    for (const auto &uploader : qAsConst(m_files))
        uploader->stop();
    m_state = Idle;
    m_results.clear();
    QStringList identifiers;
    identifiers.reserve(m_files.size());
    for (auto it = m_files.cbegin(); it != m_files.cend(); ++it)
        identifiers.append(it.key()->identifier);
    // One write for the whole job, however many files it had.
    UploadGlobal::instance()->removeInfos(identifiers);
    UploadGlobal::instance()->flush();
    m_files.clear();
    m_identifiers.clear();
    m_counted.clear();
    m_finished.clear();
    m_totalSize = 0;
    m_sent = 0;
}

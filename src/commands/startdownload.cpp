#include "startdownload.h"

#include "download/downloader.h"
#include "download/downloadglobal.h"
#include "download/downloadtask.h"
#include "download/probebatch.h"
#include "network/networkmanager.h"
#include "core/globalmanager.h"
#include "core/logging.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QPointer>

namespace {
constexpr int HostTimeoutCode = Zephyrtide::Error::Timeout;

bool isHostTimeout(const QVariantMap &result)
{
    return result.value(QStringLiteral("errorCode")).toInt() == HostTimeoutCode;
}

// As many probes at once as the download queue lets transfers run.
int probeLimit()
{
    return DownloadGlobal::instance()->networkManager()->netLimit() + 1;
}
} // namespace

StartDownload::StartDownload(QObject *parent)
    : QObject(parent)
    , m_global(GlobalManager::instance())
{
    qRegisterMetaType<Zephyrtide::Manager::NetLimit>("NetLimit");
}

StartDownload::~StartDownload() = default;

void StartDownload::zt_apply(Zephyrtide::Reply *reply, QVariantMap params)
{
    zt_apply_start(reply, params);
}

void StartDownload::zt_set_manager(Zephyrtide::Manager *manager)
{
    m_global->setManager(manager);
}

void StartDownload::applyConfiguration()
{
    qCDebug(ztLog) << " set config data";
    if (m_configured)
        return;
    const QVariantMap config = m_global->configData().value(QStringLiteral("startDownload")).toMap();
    const qint64 chunkSize = config.value(QStringLiteral("chunkSize")).toLongLong();
    const QString path = config.value(QStringLiteral("temporaryStoragePath")).toString();
    qCDebug(ztLog) << " set config data _______" << config << chunkSize << path;
    if (chunkSize > 0)
        DownloadGlobal::instance()->setChunkSize(chunkSize);
    if (!path.isEmpty())
        DownloadGlobal::instance()->setTemporaryStoragePath(path);
    qCDebug(ztLog) << " set config success";
    m_configured = true;
}

void StartDownload::zt_apply_start(Zephyrtide::Reply *reply, QVariantMap params)
{
    qCDebug(ztLog) << "start" << params;
    applyConfiguration();
    const QVariantList files = params.value(QStringLiteral("files")).toList();
    if (files.isEmpty()) {
        m_global->fail(reply, Zephyrtide::Error::ParseError);
        return;
    }
    auto *downloader = new Downloader(this); // deleted with this object, or on a host time-out
    // The probes below wait in a nested loop, during which the host may time
    // the reply out (which deletes the downloader) or drop it: both are looked
    // at again after the wait.
    const QPointer<Downloader> alive(downloader);
    const QPointer<Zephyrtide::Reply> hostReply(reply);
    connect(reply, &Zephyrtide::Reply::finished, downloader, [reply, downloader](const QVariantMap &result) {
        if (!isHostTimeout(result))
            return;
        qCWarning(ztLog) << "timeout" << reply->requestName() << "begin delete";
        // Cut from the reply first, so that the stop tells the host nothing;
        // the stop itself must still reach the downloader's own handler, which
        // blocked signals would keep from it: no transfer outlives the time-out.
        downloader->disconnect(reply);
        Q_EMIT downloader->stopAll();
        downloader->releaseReservations(); // of the tasks that never started
        downloader->blockSignals(true);
        downloader->deleteLater();
    });
    connect(downloader, &Downloader::keepAlive, reply, &Zephyrtide::Reply::keepAlive);

    // Probed several at a time, but taken in the host's order: the first file
    // that cannot run decides the code, as when they were probed one by one.
    ProbeBatch probes(probeLimit());
    for (const QVariant &entry : files) {
        const QVariantMap file = entry.toMap();
        probes.add(QSharedPointer<DownloadTask>::create(), file.value(QStringLiteral("path")).toString(),
                   file.value(QStringLiteral("url")).toString(), file.value(QStringLiteral("filename")).toString());
    }
    // The host's time-out ends the probes in flight at once, and so does a
    // reply the host drops: nobody waits for the batch any more.
    connect(reply, &Zephyrtide::Reply::finished, &probes, [&probes](const QVariantMap &result) {
        if (isHostTimeout(result))
            probes.abort();
    });
    connect(reply, &QObject::destroyed, &probes, &ProbeBatch::abort);
    connect(&probes, &ProbeBatch::probed, reply, &Zephyrtide::Reply::keepAlive);
    probes.run();

    for (int i = 0; i < probes.count(); ++i) {
        const QSharedPointer<DownloadTask> task = probes.task(i);
        ZTErrorCode code = probes.codeOf(i);
        if (code == Zephyrtide::Error::NoError && alive && hostReply && !task->applyProbe()) {
            qCCritical(ztLog) << "parsing task fail" << task->url;
            code = Zephyrtide::Error::ParseError;
        }
        // A batch given up here downloads nothing: the names its tasks
        // reserved (the one in hand too, once its probe went well) are freed.
        const auto abandon = [&] {
            task->releaseReservations();
            if (alive)
                downloader->releaseReservations();
        };
        if (!alive || !hostReply) {
            qCWarning(ztLog) << "download given up while probing" << task->url;
            abandon();
            if (alive)
                downloader->deleteLater(); // no reply to report to
            return;
        }
        if (downloader->status() != Downloader::Running) {
            qCCritical(ztLog) << "downloader is finished" << downloader->status();
            abandon();
            return;
        }
        if (code != Zephyrtide::Error::NoError) {
            abandon();
            m_global->fail(reply, code);
            return;
        }
        if (!downloader->addTask(task)) {
            qCCritical(ztLog) << "append setfile fail";
            abandon();
            m_global->fail(reply, Zephyrtide::Error::ParseError);
            return;
        }
    }

    connect(reply, &Zephyrtide::Reply::stop, downloader, &Downloader::stopAll);
    connect(reply, &Zephyrtide::Reply::abort, downloader, &Downloader::abortAll);
    connect(downloader, &Downloader::progress, reply, &Zephyrtide::Reply::downloadProgress);
    connect(downloader, &Downloader::finished, reply,
            [this, reply](ZTErrorCode status, const QList<DownloadTask *> &tasks) {
                if (status != Zephyrtide::Error::NoError) {
                    m_global->fail(reply, status);
                    return;
                }
                QVariantList list;
                for (const DownloadTask *task : tasks) {
                    const QVariantMap map = task->toMap();
                    // Once per further destination, or once when there is none.
                    for (int i = 0; i < qMax(1, task->sameFileTargets.size()); ++i)
                        list.append(map);
                }
                qCDebug(ztLog) << "finish  download" << list;
                m_global->success(reply, list);
            });
    if (params.contains(QStringLiteral("netLimit")))
        qCDebug(ztLog) << params.value(QStringLiteral("netLimit")).value<Zephyrtide::Manager::NetLimit>();

    const ZTErrorCode code = downloader->start();
    if (code == Zephyrtide::Error::NoError || !alive || !hostReply)
        return;
    QVariantList results;
    for (const DownloadTask *task : downloader->finishedTasks())
        results.append(task->toMap());
    qCCritical(ztLog) << "start error" << code;
    m_global->finish(reply, QStringLiteral("fail"), results, code);
}

void StartDownload::zt_apply_isExist(Zephyrtide::Reply *reply, QVariantMap params)
{
    qCInfo(ztLog) << "is exist start" << params;
    const QString url = params.value(QStringLiteral("url")).toString();
    if (url.isEmpty()) {
        m_global->fail(reply, Zephyrtide::Error::MissingParameter);
        return;
    }
    DownloadTask task;
    applyConfiguration();
    const QPointer<Zephyrtide::Reply> hostReply(reply);
    task.init(url); // waits for its probe in a nested loop
    if (!hostReply) {
        qCWarning(ztLog) << "is exist given up" << url;
        return;
    }
    m_global->success(reply, QVariantMap{{QStringLiteral("url"), url},
                                         {QStringLiteral("bytesReceived"), qint64(task.downloadedSize)},
                                         {QStringLiteral("bytesTotal"), qint64(task.fileSize)}});
    qCInfo(ztLog) << "is exist success";
}

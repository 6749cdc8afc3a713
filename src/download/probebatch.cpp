#include "probebatch.h"

#include "downloadtask.h"
#include "core/logging.h"

#include <QEventLoop>
#include <QNetworkReply>

#include <utility>

ProbeBatch::ProbeBatch(int limit, QObject *parent)
    : QObject(parent)
    , m_limit(qMax(1, limit))
{
}

ProbeBatch::~ProbeBatch()
{
    abort(); // no probe outlives the batch
}

void ProbeBatch::add(const QSharedPointer<DownloadTask> &task, const QString &filePath, const QString &url,
                     const QString &fileName)
{
    Entry entry;
    entry.task = task;
    entry.filePath = filePath;
    entry.url = url;
    entry.fileName = fileName;
    m_entries.append(entry);
}

void ProbeBatch::run()
{
    qCDebug(ztLog) << "probing" << m_entries.size() << "tasks, at most" << m_limit << "at once";
    sendNext();
    if (m_inFlight == 0)
        return;
    QEventLoop loop;
    m_loop = &loop;
    loop.exec();
    m_loop = nullptr;
}

void ProbeBatch::sendNext()
{
    while (!m_stopped && m_inFlight < m_limit && m_next < m_entries.size()) {
        const int index = m_next++;
        Entry &entry = m_entries[index];
        entry.sent = true;
        entry.prepared = entry.task->prepare(entry.filePath, entry.url, entry.fileName);
        if (entry.prepared != Zephyrtide::Error::NoError) {
            m_stopped = true; // the batch ends with this task: no later one is needed
            break;
        }
        entry.reply = entry.task->sendProbe(m_access);
        ++m_inFlight;
        connect(entry.reply, &QNetworkReply::finished, this, [this, index] { onProbeFinished(index); });
    }
}

void ProbeBatch::onProbeFinished(int index)
{
    Entry &entry = m_entries[index];
    QNetworkReply *reply = std::exchange(entry.reply, nullptr);
    if (!reply)
        return;
    --m_inFlight;
    entry.answered = !m_aborted;
    entry.task->readProbe(reply);
    entry.task->endProbe(reply);
    if (entry.answered)
        Q_EMIT probed();
    sendNext();
    if (m_inFlight == 0 && m_loop)
        m_loop->quit();
}

void ProbeBatch::abort()
{
    m_stopped = true;
    m_aborted = true;
    for (const Entry &entry : qAsConst(m_entries)) {
        if (entry.reply)
            entry.task->abortProbe(); // finishes the reply: its handler counts it out
    }
}

ZTErrorCode ProbeBatch::codeOf(int index) const
{
    const Entry &entry = m_entries.at(index);
    if (entry.prepared != Zephyrtide::Error::NoError)
        return entry.prepared;
    return entry.answered ? Zephyrtide::Error::NoError : Zephyrtide::Error::ParseError;
}

#pragma once

#include "core/zterrorcode.h"

#include <QList>
#include <QNetworkAccessManager>
#include <QObject>
#include <QSharedPointer>
#include <QString>

class DownloadTask;
class QEventLoop;
class QNetworkReply;

// Probes the tasks of one batch, several at a time (at most `limit` in flight)
// over one access manager, instead of one after the other. Tasks are prepared
// (DownloadTask::prepare) and their probes sent in the order they were added;
// the first task whose preparation fails ends the sending, as it ends the
// batch. What a probe found is only read into its task here: the caller
// derives the rest (DownloadTask::applyProbe) in the tasks' order, so that
// names are reserved as a run one after the other would reserve them.
//
// Call order: add() for each task, then run(), which waits in a nested event
// loop until every probe sent has ended or abort() was called; then
// codeOf() for each task in order.
class ProbeBatch : public QObject
{
    Q_OBJECT
public:
    explicit ProbeBatch(int limit, QObject *parent = nullptr);
    ~ProbeBatch() override;

    void add(const QSharedPointer<DownloadTask> &task, const QString &filePath, const QString &url,
             const QString &fileName);
    void run();
    // Gives up every probe in flight and sends no more; run() returns.
    void abort();

    int count() const { return m_entries.size(); }
    QSharedPointer<DownloadTask> task(int index) const { return m_entries.at(index).task; }
    // 0 when the task was prepared and its probe answered; the preparation's
    // code; or 20695 when the probe did not end with an answer (or was never sent).
    ZTErrorCode codeOf(int index) const;

Q_SIGNALS:
    void probed(); // one probe answered

private:
    struct Entry
    {
        QSharedPointer<DownloadTask> task;
        QString filePath;
        QString url;
        QString fileName;
        ZTErrorCode prepared = Zephyrtide::Error::NoError;
        bool sent = false;
        bool answered = false;
        QNetworkReply *reply = nullptr; // while in flight
    };
    void sendNext();
    void onProbeFinished(int index);

    QNetworkAccessManager m_access; // shared by the batch's probes: one thread, not one per probe
    QList<Entry> m_entries;
    QEventLoop *m_loop = nullptr; // while run() waits
    int m_limit;
    int m_next = 0;     // the first task not sent yet
    int m_inFlight = 0;
    bool m_stopped = false; // a preparation failed, or abort(): nothing more is sent
    bool m_aborted = false;
};

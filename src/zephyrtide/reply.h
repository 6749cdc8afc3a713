#pragma once

#include "error.h"
#include "zephyrtide_global.h"

#include <QObject>
#include <QVariantMap>

#include <atomic>

namespace Zephyrtide {

// One host request or command. Whoever does the work emits exactly one
// finished(map) with {"status", "result", "errorCode"}; isFinished() turns true
// the moment it is emitted. stop() and abort() are emitted by the side that
// wants the work to end; the side doing the work listens to them.
class ZEPHYRTIDE_EXPORT Reply : public QObject
{
    Q_OBJECT
public:
    explicit Reply(const QString &requestName = QString(),
                   const QVariantMap &requestParams = QVariantMap(),
                   QObject *parent = nullptr);
    ~Reply() override;

    // Non-zero when the host failed the request before it was sent.
    Error::ErrorCode status() const;
    void setStatus(Error::ErrorCode status);

    bool isFinished() const;

    QString requestName() const;
    QVariantMap requestParams() const;

Q_SIGNALS:
    void finished(const QVariantMap &result);
    void errorOccurred(Zephyrtide::Error::ErrorCode code);
    void oneErrorOccurred(const QString &name, Zephyrtide::Error::ErrorCode code);
    void uploadProgress(qint64 bytesSent, qint64 bytesTotal);
    void downloadProgress(qint64 bytesReceived, qint64 bytesTotal);
    void keepAlive();
    void stop();
    void abort();

private:
    QString m_requestName;
    QVariantMap m_requestParams;
    std::atomic<int> m_status{Error::NoError};
    std::atomic<bool> m_finished{false};
};

} // namespace Zephyrtide

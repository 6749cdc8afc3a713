#pragma once

#include "error.h"
#include "reply.h"
#include "zephyrtide_global.h"

#include <QMutex>
#include <QObject>
#include <QVariantMap>

QT_BEGIN_NAMESPACE
class QNetworkAccessManager;
class QNetworkReply;
QT_END_NAMESPACE

namespace Zephyrtide {

// The host's request manager. request() must be called on the manager's own
// thread; the returned Reply lives there too and is owned by the manager until
// the caller deletes it (deleteLater is the usual way).
//
// The parameter map of the typed request holds "headers" (map), "body" (map,
// sent as JSON), "params" (map, added as query items) and "source". The reply
// map is {"status", "result", "errorCode"}; "options"["timeout"] bounds the wait
// in seconds (default 30) and ends it with Error::Timeout.
class ZEPHYRTIDE_EXPORT Manager : public QObject
{
    Q_OBJECT
public:
    enum HttpRequestType { Post = 0, Get = 1, Put = 2 };
    Q_ENUM(HttpRequestType)

    enum HttpEncryptType { NoEncryption = 0, SignedEncryption = 1 };
    Q_ENUM(HttpEncryptType)

    enum CloudAuthentication { NoAuthentication = 0, UserAuthentication = 1 };
    Q_ENUM(CloudAuthentication)

    enum NetLimit { Unlimited = 0, Normal = 1, Low = 2, High = 3 };
    Q_ENUM(NetLimit)

    enum HttpRequestSource : uint { Application = 0, Desktop = 1, Service = 2 };
    Q_ENUM(HttpRequestSource)

    explicit Manager(QObject *parent = nullptr);
    ~Manager() override;

    Q_INVOKABLE virtual Zephyrtide::Reply *request(const QString &name,
                                                   Zephyrtide::Manager::HttpRequestType type,
                                                   Zephyrtide::Manager::HttpEncryptType encrypt,
                                                   const QVariantMap &params,
                                                   Zephyrtide::Manager::CloudAuthentication auth,
                                                   const QVariantMap &options);
    // Plain form: POSTs params as the JSON body to name, without authentication.
    Q_INVOKABLE virtual Zephyrtide::Reply *request(const QString &name, const QVariantMap &params,
                                                   const QVariantMap &options);
    Q_INVOKABLE virtual QVariantMap configData();

    // Set by the host application; "token", "startDownload" and the like.
    void setConfigData(const QVariantMap &data);

protected:
    // Finishes reply once: errorOccurred first on failure, then finished(map).
    static void finishReply(Reply *reply, const QString &status, const QVariant &result,
                            Error::ErrorCode code);

private:
    void onNetworkReplyFinished(QNetworkReply *networkReply, Reply *reply, bool timedOut);

    QNetworkAccessManager *m_network; // child
    QMutex m_configMutex;
    QVariantMap m_configData;
};

} // namespace Zephyrtide

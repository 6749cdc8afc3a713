#pragma once

#include "zterrorcode.h"

#include <QList>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QSslCertificate>
#include <QVariant>

class QNetworkRequest;

namespace Zephyrtide {
class Manager;
class Reply;
}

// The plugin's one binding to the host: keeps the host's manager, makes blocking
// host requests through it, and is the one place where an outcome is put on a
// host reply. Process-wide; created on first instance(), destroyed by the root
// object when the host unloads the plugin.
//
// Call order: instance() → setManager() (from zt_set_manager) → requests. Until
// a manager is set every request returns NoManager (20702) without calling the host.
class GlobalManager : public QObject
{
    Q_OBJECT
public:
    static GlobalManager *instance();
    static void destroy();
    // For tests: the live instance or null, without creating one.
    static GlobalManager *existingInstance();

    void setManager(Zephyrtide::Manager *manager);
    Zephyrtide::Manager *manager() const;

    // Base address of the file service ("http://host:port"); paths are appended
    // to it as they are, with no separator added.
    QString fileServiceAddress() const;
    void setFileServiceAddress(const QString &address);

    QString apiHost() const;
    void setApiHost(const QString &host);

    void success(Zephyrtide::Reply *reply, const QVariant &result);
    void fail(Zephyrtide::Reply *reply, ZTErrorCode code);
    void finish(Zephyrtide::Reply *reply, const QString &status, const QVariant &result,
                ZTErrorCode code);
    void oneError(Zephyrtide::Reply *reply, const QString &name, ZTErrorCode code);

    // Finishes reply from a server answer {"status", "result"}.
    void checkResult(Zephyrtide::Reply *reply, const QVariantMap &answer);
    static ZTErrorCode codeForAnswer(const QVariantMap &answer);
    static ZTErrorCode networkErrorCode(QNetworkReply::NetworkError error);

    bool hasNetwork();
    static bool makePath(const QString &path);

    // Blocking host requests. They wait in a nested event loop and return the
    // code (0 on success) with the host's "result" in result. Destroying
    // context while waiting abandons the wait and aborts the host reply.
    ZTErrorCode request(QObject *context, QVariant &result, const QString &name,
                        Zephyrtide::Manager::HttpRequestType type,
                        Zephyrtide::Manager::HttpEncryptType encrypt, const QVariantMap &headers,
                        const QVariantMap &body, const QVariantMap &query,
                        Zephyrtide::Manager::CloudAuthentication auth, uint source);
    ZTErrorCode request(QObject *context, QVariant &result, const QString &name,
                        const QVariantMap &params);
    QVariantMap configData();

    // What the host's configuration asks of every request the plugin sends
    // itself (probes, chunks, parts): the default SSL configuration plus the
    // certificate authorities it names ("caCertificates", PEM text), and its
    // "token" as a bearer token, which the file service asks for on every
    // request it protects.
    void applyHostConfiguration(QNetworkRequest &request);
    // Logs why a TLS connection was refused: "certificate" and Qt's reasons.
    static void logCertificateErrors(const QUrl &url, const QList<QSslError> &errors);

private:
    GlobalManager();
    ~GlobalManager() override;

    ZTErrorCode waitForReply(QObject *context, Zephyrtide::Reply *reply, QVariant &result);

    QPointer<Zephyrtide::Manager> m_manager; // the host's, not owned
    QString m_fileServiceAddress;
    QString m_apiHost;
    QString m_caText; // the host's PEM text, as last parsed into m_caCertificates
    QList<QSslCertificate> m_caCertificates;
};

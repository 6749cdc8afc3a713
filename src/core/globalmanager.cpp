#include "globalmanager.h"

#include "logging.h"
#include "threadcall.h"

#include <zephyrtide/manager.h>
#include <zephyrtide/reply.h>

#include <QCoreApplication>
#include <QDir>
#include <QDnsLookup>
#include <QEventLoop>
#include <QMetaEnum>
#include <QMutex>
#include <QNetworkRequest>
#include <QSslConfiguration>
#include <QSslError>
#include <QThread>

#include <atomic>

namespace {

const char AppKey[] = "9c41d7e0a25b6f83c1e4d0a7b92f5e6c8d3a1b70";
const char DefaultApiHost[] = "api.zephyrtide.com";
constexpr int HostRequestTimeoutSeconds = 30;

std::atomic<GlobalManager *> s_instance{nullptr};
QMutex s_instanceMutex;

// Registers name as a second name of the host's type T.
template <typename T>
void registerAlias(const char *name)
{
    qRegisterMetaType<T>();
    qRegisterMetaType<T>(name);
}

// The words a failed answer may carry, in the order they are looked for.
// "userNotExist" comes before "notExist" so that it wins.
struct AnswerWord
{
    const char *word;
    ZTErrorCode code;
};
const AnswerWord AnswerWords[] = {
    {"require", Zephyrtide::Error::MissingParameter},
    {"authErr", Zephyrtide::Error::AuthError},
    {"parseErr", Zephyrtide::Error::ParseError},
    {"userNotExist", Zephyrtide::Error::UserNotExist},
    {"illegalErr", Zephyrtide::Error::IllegalError},
    {"hasCaptcha", Zephyrtide::Error::HasCaptcha},
    {"hasValidCode", Zephyrtide::Error::HasValidCode},
    {"notExist", Zephyrtide::Error::NotExist},
};

} // namespace

GlobalManager::GlobalManager()
{
    qCInfo(ztLog) << "zephyrtide dll" << "ztServer" << "1.5.20" << AppKey << QThread::currentThread();
    registerAlias<Zephyrtide::Manager::HttpRequestType>("ZTHttpRequestType");
    registerAlias<Zephyrtide::Error::ErrorCode>("ZTErrorCode");
    const QByteArray encryptName =
        QByteArray(Zephyrtide::Manager::staticMetaObject.className()) + "::HttpEncryptType";
    qRegisterMetaType<Zephyrtide::Manager::HttpEncryptType>(encryptName.constData());
    registerAlias<Zephyrtide::Manager::HttpEncryptType>("ZTEncryptType");
    m_apiHost = QString::fromLatin1(DefaultApiHost);
}

GlobalManager::~GlobalManager() = default;

GlobalManager *GlobalManager::instance()
{
    GlobalManager *manager = s_instance.load();
    if (!manager) {
        QMutexLocker locker(&s_instanceMutex);
        manager = s_instance.load();
        if (!manager) {
            manager = new GlobalManager; // owned by the process; destroy() frees it
            s_instance.store(manager);
        }
    }
    return manager;
}

void GlobalManager::destroy()
{
    QMutexLocker locker(&s_instanceMutex);
    delete s_instance.exchange(nullptr);
}

GlobalManager *GlobalManager::existingInstance()
{
    return s_instance.load();
}

void GlobalManager::setManager(Zephyrtide::Manager *manager)
{
    if (m_manager != manager)
        m_manager = manager;
}

Zephyrtide::Manager *GlobalManager::manager() const
{
    return m_manager;
}

QString GlobalManager::fileServiceAddress() const
{
    return m_fileServiceAddress;
}

void GlobalManager::setFileServiceAddress(const QString &address)
{
    m_fileServiceAddress = address;
}

QString GlobalManager::apiHost() const
{
    return m_apiHost;
}

void GlobalManager::setApiHost(const QString &host)
{
    m_apiHost = host;
}

void GlobalManager::success(Zephyrtide::Reply *reply, const QVariant &result)
{
    finish(reply, QStringLiteral("success"), result, Zephyrtide::Error::NoError);
}

void GlobalManager::fail(Zephyrtide::Reply *reply, ZTErrorCode code)
{
    if (!reply) {
        qCCritical(ztLog) << "request reply is empty";
        return;
    }
    qCCritical(ztLog) << "request fail error" << code << reply->requestName() << reply->requestParams();
    finish(reply, QStringLiteral("fail"), QVariant(), code);
}

void GlobalManager::finish(Zephyrtide::Reply *reply, const QString &status, const QVariant &result,
                           ZTErrorCode code)
{
    qCDebug(ztLog) << "request finished" << status << code;
    if (!reply) {
        qCCritical(ztLog) << "request reply is empty";
        return;
    }
    const QVariantMap map{{QStringLiteral("status"), status},
                          {QStringLiteral("result"), result},
                          {QStringLiteral("errorCode"), int(code)}};
    if (reply->isFinished()) {
        qCDebug(ztLog) << "already finished";
        return;
    }
    Q_EMIT reply->finished(map);
}

void GlobalManager::oneError(Zephyrtide::Reply *reply, const QString &name, ZTErrorCode code)
{
    if (reply)
        Q_EMIT reply->oneErrorOccurred(name, code);
    qCCritical(ztLog) << "request fail error" << code;
    qCCritical(ztLog) << "request fail name" << name;
}

ZTErrorCode GlobalManager::codeForAnswer(const QVariantMap &answer)
{
    if (answer.value(QStringLiteral("status")).toString().contains(QLatin1String("success")))
        return Zephyrtide::Error::NoError;
    const QString result = answer.value(QStringLiteral("result")).toString();
    for (const AnswerWord &entry : AnswerWords) {
        if (result.contains(QLatin1String(entry.word), Qt::CaseInsensitive))
            return entry.code;
    }
    return Zephyrtide::Error::GeneralFailure;
}

void GlobalManager::checkResult(Zephyrtide::Reply *reply, const QVariantMap &answer)
{
    const ZTErrorCode code = codeForAnswer(answer);
    if (code == Zephyrtide::Error::NoError)
        success(reply, answer.value(QStringLiteral("result")));
    else
        fail(reply, code);
}

ZTErrorCode GlobalManager::networkErrorCode(QNetworkReply::NetworkError error)
{
    const int e = error;
    int code;
    if (e <= 100)
        code = e + 20479;
    else if (e <= 200)
        code = e + 20410;
    else if (e <= 300)
        code = e + 20340;
    else if (e <= 400)
        code = e + 20270;
    else
        code = e + 20200;
    const auto result = static_cast<ZTErrorCode>(code);
    qCCritical(ztLog) << "http error" << error << result;
    return result;
}

bool GlobalManager::hasNetwork()
{
    QDnsLookup lookup(QDnsLookup::A, m_apiHost);
    QEventLoop loop;
    bool answer = false;
    connect(&lookup, &QDnsLookup::finished, &loop, [&] {
        if (lookup.error() == QDnsLookup::NoError) {
            answer = true;
        } else {
            qCCritical(ztLog) << "dns search fail" << lookup.error() << m_apiHost << lookup.errorString();
        }
        loop.quit();
    });
    lookup.lookup();
    loop.exec();
    qCDebug(ztLog) << "has network" << answer;
    return answer;
}

bool GlobalManager::makePath(const QString &path)
{
    if (QDir(path).exists())
        return true;
    if (QDir().mkpath(path))
        return true;
    qCCritical(ztLog) << "path create fail" << path;
    return false;
}

ZTErrorCode GlobalManager::request(QObject *context, QVariant &result, const QString &name,
                                   Zephyrtide::Manager::HttpRequestType type,
                                   Zephyrtide::Manager::HttpEncryptType encrypt,
                                   const QVariantMap &headers, const QVariantMap &body,
                                   const QVariantMap &query,
                                   Zephyrtide::Manager::CloudAuthentication auth, uint source)
{
    Zephyrtide::Manager *manager = m_manager;
    if (!manager) {
        qCCritical(ztLog) << "global manager is empty";
        return Zephyrtide::Error::NoManager;
    }
    const QVariantMap params{{QStringLiteral("headers"), headers},
                             {QStringLiteral("body"), body},
                             {QStringLiteral("params"), query},
                             {QStringLiteral("source"), source}};
    const QVariantMap options{{QStringLiteral("timeout"), HostRequestTimeoutSeconds}};
    Zephyrtide::Reply *reply = callOnThreadOf(manager, [&] {
        return manager->request(name, type, encrypt, params, auth, options);
    });
    return waitForReply(context, reply, result);
}

ZTErrorCode GlobalManager::request(QObject *context, QVariant &result, const QString &name,
                                   const QVariantMap &params)
{
    Zephyrtide::Manager *manager = m_manager;
    if (!manager) {
        qCCritical(ztLog) << "global manager is empty";
        return Zephyrtide::Error::NoManager;
    }
    const QVariantMap options{{QStringLiteral("timeout"), HostRequestTimeoutSeconds}};
    Zephyrtide::Reply *reply =
        callOnThreadOf(manager, [&] { return manager->request(name, params, options); });
    return waitForReply(context, reply, result);
}

QVariantMap GlobalManager::configData()
{
    Zephyrtide::Manager *manager = m_manager;
    if (!manager) {
        qCCritical(ztLog) << "global manager is empty";
        return QVariantMap();
    }
    return callOnThreadOf(manager, [manager] { return manager->configData(); });
}

void GlobalManager::applyHostConfiguration(QNetworkRequest &request)
{
    // Without a host manager there is nothing to add; that is no failure here.
    Zephyrtide::Manager *manager = m_manager;
    const QVariantMap config =
        manager ? callOnThreadOf(manager, [manager] { return manager->configData(); }) : QVariantMap();
    const QString authorities = config.value(QStringLiteral("caCertificates")).toString();
    if (authorities != m_caText) {
        m_caText = authorities;
        m_caCertificates = QSslCertificate::fromData(authorities.toUtf8(), QSsl::Pem);
    }
    QSslConfiguration ssl = QSslConfiguration::defaultConfiguration();
    if (!m_caCertificates.isEmpty())
        ssl.setCaCertificates(ssl.caCertificates() + m_caCertificates);
    request.setSslConfiguration(ssl);
    const QString token = config.value(QStringLiteral("token")).toString();
    if (!token.isEmpty())
        request.setRawHeader("Authorization", "Bearer " + token.toUtf8());
}

void GlobalManager::logCertificateErrors(const QUrl &url, const QList<QSslError> &errors)
{
    QStringList reasons;
    for (const QSslError &error : errors)
        reasons.append(error.errorString());
    qCCritical(ztLog) << "certificate" << url << reasons;
}

ZTErrorCode GlobalManager::waitForReply(QObject *context, Zephyrtide::Reply *reply, QVariant &result)
{
    if (!reply) {
        qCCritical(ztLog) << "reply is nullptr";
        return Zephyrtide::Error::NoManager;
    }
    if (reply->status() != Zephyrtide::Error::NoError) {
        qCCritical(ztLog) << "request error" << reply->status();
        reply->deleteLater();
        return reply->status();
    }

    QEventLoop loop;
    ZTErrorCode code = Zephyrtide::Error::NoError;
    QPointer<Zephyrtide::Reply> guard(reply);
    if (context) {
        // Nobody is left to hand the outcome to: tell the host and stop waiting.
        connect(context, &QObject::destroyed, &loop, [&] {
            if (guard) {
                guard->disconnect(&loop);
                Q_EMIT guard->abort();
                guard->deleteLater();
            }
            code = Zephyrtide::Error::Aborted;
            loop.quit();
        });
    }
    bool answered = false;
    connect(reply, &Zephyrtide::Reply::finished, &loop, [&](const QVariantMap &map) {
        answered = true;
        reply->deleteLater();
        if (map.value(QStringLiteral("status")).toString() != QLatin1String("success")) {
            qCCritical(ztLog) << "fail" << map;
            code = static_cast<ZTErrorCode>(map.value(QStringLiteral("errorCode")).toInt());
        }
        result = map.value(QStringLiteral("result"));
        loop.quit();
    });
    connect(reply, &Zephyrtide::Reply::errorOccurred, &loop, [&](ZTErrorCode error) {
        code = error;
        qCCritical(ztLog) << "erro" << reply->requestName() << error;
    });
    // A reply of another thread that finished meanwhile has its answer posted
    // to us already, or lost before we listened.
    if (reply->isFinished())
        QCoreApplication::sendPostedEvents(&loop, QEvent::MetaCall);
    if (answered)
        return code;
    // Finished before we listened: its answer went by unheard, so only a
    // failure it recorded can be told; never a success without its result.
    if (reply->isFinished()) {
        reply->disconnect(&loop);
        reply->deleteLater();
        if (reply->status() != Zephyrtide::Error::NoError)
            return reply->status();
        qCCritical(ztLog) << "request error" << "finished before its answer was heard" << reply->requestName();
        return Zephyrtide::Error::NoManager;
    }
    loop.exec();
    return code;
}

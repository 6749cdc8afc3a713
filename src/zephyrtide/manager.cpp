#include "manager.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTimer>
#include <QUrlQuery>

namespace Zephyrtide {

namespace {

constexpr int DefaultTimeoutSeconds = 30;

// Qt numbers its network errors in ranges of a hundred; the SDK shifts each
// range into its own block of codes.
Error::ErrorCode codeForNetworkError(QNetworkReply::NetworkError error)
{
    const int e = error;
    static const int shifts[] = {20479, 20410, 20340, 20270, 20200};
    const int range = qBound(0, (e - 1) / 100, 4);
    return static_cast<Error::ErrorCode>(e + shifts[range]);
}

// Qt 5 can finish a reply without an error although the connection closed
// before the body was whole: when it sees the socket closed before it has read
// what came, it takes the close for the end of a body without a length. A cut
// answer is a failed one, whatever Qt says. (Qt drops Content-Length from a
// body it decompresses, so only a length that the body is sent with counts.)
bool isCutShort(const QNetworkReply *networkReply, const QByteArray &body)
{
    const QVariant announced = networkReply->header(QNetworkRequest::ContentLengthHeader);
    return announced.isValid() && body.size() < announced.toLongLong();
}

QByteArray jsonBody(const QVariant &body)
{
    return QJsonDocument(QJsonObject::fromVariantMap(body.toMap())).toJson(QJsonDocument::Compact);
}

} // namespace

Manager::Manager(QObject *parent)
    : QObject(parent)
    , m_network(new QNetworkAccessManager(this))
{
}

Manager::~Manager() = default;

Reply *Manager::request(const QString &name, HttpRequestType type, HttpEncryptType encrypt,
                        const QVariantMap &params, CloudAuthentication auth,
                        const QVariantMap &options)
{
    Q_UNUSED(encrypt) // the SDK signs requests only for its own cloud; plain here
    auto *reply = new Reply(name, params, this);

    QUrl url(name);
    if (!url.isValid() || (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https"))) {
        reply->setStatus(Error::ProtocolUnknown);
        return reply;
    }
    const QVariantMap query = params.value(QStringLiteral("params")).toMap();
    if (!query.isEmpty()) {
        QUrlQuery items(url);
        for (auto it = query.cbegin(); it != query.cend(); ++it)
            items.addQueryItem(it.key(), it.value().toString());
        url.setQuery(items);
    }

    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    const QVariantMap headers = params.value(QStringLiteral("headers")).toMap();
    for (auto it = headers.cbegin(); it != headers.cend(); ++it)
        request.setRawHeader(it.key().toUtf8(), it.value().toString().toUtf8());
    // The file service asks for the host's token on every request it protects
    // (listing and deleting too, which go out without user authentication),
    // and these requests only ever go to the host's own service.
    Q_UNUSED(auth)
    const QVariantMap config = configData();
    const QString token = config.value(QStringLiteral("token")).toString();
    if (!token.isEmpty())
        request.setRawHeader("Authorization", "Bearer " + token.toUtf8());
    // Certificate authorities the host trusts beside the system's, as PEM text.
    const QByteArray authorities = config.value(QStringLiteral("caCertificates")).toString().toUtf8();
    if (!authorities.isEmpty()) {
        QSslConfiguration ssl = QSslConfiguration::defaultConfiguration();
        ssl.setCaCertificates(ssl.caCertificates() + QSslCertificate::fromData(authorities, QSsl::Pem));
        request.setSslConfiguration(ssl);
    }

    const QByteArray body = jsonBody(params.value(QStringLiteral("body")));
    // Qt writes the header and the body apart; on a kept-alive connection the
    // peer's delayed ACK of the header then holds the body back 40 ms. A fresh
    // connection is acknowledged at once.
    if (type != Get)
        request.setRawHeader("Connection", "close");
    QNetworkReply *networkReply = nullptr;
    switch (type) {
    case Get:
        networkReply = m_network->get(request);
        break;
    case Put:
        networkReply = m_network->put(request, body);
        break;
    case Post:
    default:
        networkReply = m_network->post(request, body);
        break;
    }

    const int seconds = options.value(QStringLiteral("timeout"), DefaultTimeoutSeconds).toInt();
    auto *timer = new QTimer(networkReply);
    timer->setSingleShot(true);
    auto timedOut = QSharedPointer<bool>::create(false);
    connect(timer, &QTimer::timeout, networkReply, [networkReply, timedOut] {
        *timedOut = true;
        networkReply->abort();
    });
    timer->start(qMax(1, seconds) * 1000);

    // The caller emits abort() when it stops waiting.
    QPointer<QNetworkReply> guard(networkReply);
    connect(reply, &Reply::abort, this, [guard] {
        if (guard)
            guard->abort();
    });
    connect(networkReply, &QNetworkReply::finished, this, [this, networkReply, reply, timedOut] {
        onNetworkReplyFinished(networkReply, reply, *timedOut);
    });
    return reply;
}

Reply *Manager::request(const QString &name, const QVariantMap &params, const QVariantMap &options)
{
    return request(name, Post, NoEncryption, {{QStringLiteral("body"), params}}, NoAuthentication,
                   options);
}

void Manager::onNetworkReplyFinished(QNetworkReply *networkReply, Reply *reply, bool timedOut)
{
    networkReply->deleteLater();
    if (timedOut) {
        finishReply(reply, QStringLiteral("fail"), QVariant(), Error::Timeout);
        return;
    }
    const int httpStatus = networkReply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (networkReply->error() != QNetworkReply::NoError || httpStatus < 200 || httpStatus > 299) {
        const auto error = networkReply->error() != QNetworkReply::NoError
                               ? networkReply->error()
                               : QNetworkReply::UnknownServerError;
        finishReply(reply, QStringLiteral("fail"), QVariant(), codeForNetworkError(error));
        return;
    }

    const QByteArray data = networkReply->readAll();
    if (isCutShort(networkReply, data)) {
        finishReply(reply, QStringLiteral("fail"), QVariant(),
                    codeForNetworkError(QNetworkReply::RemoteHostClosedError));
        return;
    }
    const QJsonDocument document = QJsonDocument::fromJson(data);
    const QVariantMap answer = document.object().toVariantMap();
    if (!document.isObject() || !answer.contains(QStringLiteral("status"))) {
        // Not an SDK-style answer: hand over what came, as it came.
        const QVariant result = document.isNull() ? QVariant(QString::fromUtf8(data)) : document.toVariant();
        finishReply(reply, QStringLiteral("success"), result, Error::NoError);
        return;
    }
    const QString status = answer.value(QStringLiteral("status")).toString();
    const QVariant result = answer.value(QStringLiteral("result"));
    if (status == QLatin1String("success")) {
        finishReply(reply, status, result, Error::NoError);
        return;
    }
    const auto code = static_cast<Error::ErrorCode>(
        answer.value(QStringLiteral("errorCode"), int(Error::GeneralFailure)).toInt());
    finishReply(reply, status, result, code);
}

void Manager::finishReply(Reply *reply, const QString &status, const QVariant &result,
                          Error::ErrorCode code)
{
    if (!reply || reply->isFinished())
        return;
    if (code != Error::NoError)
        Q_EMIT reply->errorOccurred(code);
    Q_EMIT reply->finished({{QStringLiteral("status"), status},
                            {QStringLiteral("result"), result},
                            {QStringLiteral("errorCode"), int(code)}});
}

QVariantMap Manager::configData()
{
    QMutexLocker locker(&m_configMutex);
    return m_configData;
}

void Manager::setConfigData(const QVariantMap &data)
{
    QMutexLocker locker(&m_configMutex);
    m_configData = data;
}

} // namespace Zephyrtide

#include "certificatecheck.h"

#include <QEventLoop>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTimer>

QStringList CertificateCheck::refusals(const QUrl &server, const QList<QSslCertificate> &authorities,
                                       int timeoutMs)
{
    QSslSocket socket;
    QSslConfiguration ssl = QSslConfiguration::defaultConfiguration();
    ssl.setCaCertificates(ssl.caCertificates() + authorities);
    socket.setSslConfiguration(ssl);

    QStringList reasons;
    QEventLoop loop;
    QObject::connect(&socket, qOverload<const QList<QSslError> &>(&QSslSocket::sslErrors), &loop,
                     [&](const QList<QSslError> &errors) {
                         for (const QSslError &error : errors)
                             reasons.append(error.errorString());
                     });
    QObject::connect(&socket, &QSslSocket::encrypted, &loop, &QEventLoop::quit);
    QObject::connect(&socket, &QAbstractSocket::disconnected, &loop, &QEventLoop::quit);
    QObject::connect(&socket, &QAbstractSocket::errorOccurred, &loop, &QEventLoop::quit);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    socket.connectToHostEncrypted(server.host(), quint16(server.port(443)));
    loop.exec();
    socket.abort();
    return reasons;
}

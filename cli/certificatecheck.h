#pragma once

#include <QList>
#include <QSslCertificate>
#include <QStringList>
#include <QUrl>

// Why a TLS handshake with the service fails. The host library reports only
// "SslHandshakeFailed"; a handshake of ztcli's own, trusting what the plugin
// was told to trust, names the reasons (an unknown issuer, another host name,
// an expired certificate).
class CertificateCheck
{
public:
    // The reasons the service's certificate is refused; empty when the
    // handshake succeeds or the service cannot be reached at all. Bounded by
    // timeoutMs.
    static QStringList refusals(const QUrl &server, const QList<QSslCertificate> &authorities,
                                int timeoutMs = 5000);
};

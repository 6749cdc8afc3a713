#pragma once

#include "zephyrtide_global.h"

#include <QObject>

namespace Zephyrtide {

// The host's error codes. 0 is success; network failures occupy 20479-20699,
// shifted from QNetworkReply::NetworkError by range; the rest are the SDK's own.
class ZEPHYRTIDE_EXPORT Error
{
    Q_GADGET
public:
    enum ErrorCode {
        NoError = 0,

        // Connection errors (QNetworkReply 1-99).
        ConnectionRefused = 20480,
        RemoteHostClosed = 20481,
        HostNotFound = 20482,
        Timeout = 20483,
        OperationCanceled = 20484,
        SslHandshakeFailed = 20485,
        TemporaryNetworkFailure = 20486,
        NetworkSessionFailed = 20487,
        BackgroundRequestNotAllowed = 20488,
        TooManyRedirects = 20489,
        InsecureRedirect = 20490,
        // Proxy errors (QNetworkReply 101-199).
        ProxyConnectionRefused = 20511,
        ProxyConnectionClosed = 20512,
        ProxyNotFound = 20513,
        ProxyTimeout = 20514,
        ProxyAuthenticationRequired = 20515,
        // Content errors (QNetworkReply 201-299).
        ContentAccessDenied = 20541,
        ContentOperationNotPermitted = 20542,
        ContentNotFound = 20543,
        AuthenticationRequired = 20544,
        ContentReSend = 20545,
        ContentConflict = 20546,
        ContentGone = 20547,
        // Protocol errors (QNetworkReply 301-399).
        ProtocolUnknown = 20571,
        ProtocolInvalidOperation = 20572,
        UnknownNetworkError = 20578,
        InternalServerError = 20601,
        OperationNotImplemented = 20602,
        ServiceUnavailable = 20603,
        UnknownProxyError = 20609,
        GeneralFailure = 20630,
        UnknownContentError = 20639,
        ProtocolFailure = 20669,

        // The SDK's own codes.
        MissingParameter = 20693,
        ParseError = 20695,
        FileError = 20699,
        UnknownServerError = 20699,
        ChunkFolderError = 20700,
        NoManager = 20702,
        AuthError = 20706,
        IllegalError = 20707,
        UserNotExist = 20708,
        HasCaptcha = 20709,
        HasValidCode = 20710,
        NotExist = 20712,
        Stopped = 20716,
        Aborted = 20717,
        AlreadyRunning = 20718,
        NotEnoughDiskSpace = 20721,
        MergeError = 20735,
    };
    Q_ENUM(ErrorCode)

    // Aliases that read better where the code has a second meaning.
    static constexpr ErrorCode InvalidChunkUrl = HostNotFound;
};

} // namespace Zephyrtide

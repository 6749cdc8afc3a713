#include "errortext.h"

#include "exitcode.h"

#include <zephyrtide/error.h>

#include <QMetaEnum>

using Code = Zephyrtide::Error::ErrorCode;

QString ErrorText::name(int code)
{
    const char *key = QMetaEnum::fromType<Code>().valueToKey(code);
    return key ? QString::fromLatin1(key) : QStringLiteral("Error%1").arg(code);
}

bool ErrorText::isNetworkError(int code)
{
    // The host shifts Qt's network errors into 20480..20692; 20630 (a server
    // answer nobody understood) sits inside that block but is not one of them.
    return code >= Zephyrtide::Error::ConnectionRefused && code < Zephyrtide::Error::MissingParameter
           && code != Zephyrtide::Error::GeneralFailure;
}

QString ErrorText::sentence(int code)
{
    switch (code) {
    case Zephyrtide::Error::NoError:
        return QStringLiteral("no error");
    case Zephyrtide::Error::ConnectionRefused:
        return QStringLiteral("the file service refused the connection; is it running at that address?");
    case Zephyrtide::Error::HostNotFound:
        return QStringLiteral("the host name of the file service (or of an upload address) was not found");
    case Zephyrtide::Error::SslHandshakeFailed:
        return QStringLiteral("the TLS handshake with the file service failed: its certificate was "
                              "refused; give the authority that issued it with --cacert FILE");
    case Zephyrtide::Error::Timeout:
        return QStringLiteral("the file service did not answer in time");
    case Zephyrtide::Error::GeneralFailure:
        return QStringLiteral("the transfer failed: the connection to the file service was lost, or it gave an answer the plugin could not use");
    case Zephyrtide::Error::MissingParameter:
        return QStringLiteral("a required parameter was missing");
    case Zephyrtide::Error::ParseError:
        return QStringLiteral("a request or an answer could not be used (for a download: the file "
                              "could not be found or probed on the service)");
    case Zephyrtide::Error::FileError:
        return QStringLiteral("a local file could not be opened or a folder could not be created");
    case Zephyrtide::Error::ChunkFolderError:
        return QStringLiteral("the folder for partial downloads could not be created");
    case Zephyrtide::Error::NoManager:
        return QStringLiteral("the plugin could not run the command (no host manager, or the "
                              "command is not available in this build)");
    case Zephyrtide::Error::AuthError:
        return QStringLiteral("the file service refused the credentials; check --token");
    case Zephyrtide::Error::IllegalError:
        return QStringLiteral("the file service refused the request or the file name");
    case Zephyrtide::Error::NotExist:
        return QStringLiteral("the file does not exist on the service");
    case Zephyrtide::Error::Stopped:
        return QStringLiteral("the transfer was stopped; run the same command again to resume it");
    case Zephyrtide::Error::Aborted:
        return QStringLiteral("the transfer was aborted and its partial data discarded");
    case Zephyrtide::Error::AlreadyRunning:
        return QStringLiteral("the transfer is already running");
    case Zephyrtide::Error::NotEnoughDiskSpace:
        return QStringLiteral("there is not enough free disk space for the download");
    case Zephyrtide::Error::MergeError:
        return QStringLiteral("the downloaded chunks could not be merged into the destination file");
    default:
        break;
    }
    if (isNetworkError(code))
        return QStringLiteral("a network error occurred while talking to the file service");
    return QStringLiteral("the plugin reported an unexpected error");
}

QString ErrorText::describe(int code)
{
    const QString text = sentence(code);
    const bool ended = text.endsWith(QLatin1Char('?')) || text.endsWith(QLatin1Char('.'));
    return QStringLiteral("%1 (%2): %3%4").arg(name(code)).arg(code).arg(text, ended ? QString() : QStringLiteral("."));
}

int ErrorText::exitCode(int code, Context context)
{
    if (code == Zephyrtide::Error::NoError)
        return ExitSuccess;
    if (code == Zephyrtide::Error::Stopped || code == Zephyrtide::Error::Aborted)
        return ExitInterrupted;
    // Reachability is settled before a transfer starts (ztcli lists first), so
    // whatever goes wrong once bytes move is the transfer's failure.
    if (context == Transfer)
        return ExitTransfer;
    return code == Zephyrtide::Error::NotExist ? ExitNotFound : ExitServer;
}

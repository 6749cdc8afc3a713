#include "servecommand.h"

#include "exitcode.h"
#include "fileserviceprocess.h"

#include <QDir>
#include <QFileInfo>
#include <QVector>

#include <cerrno>
#include <cstring>
#include <unistd.h>

QString ServeCommand::summary() const
{
    return QStringLiteral("run the reference file service in the foreground");
}

QString ServeCommand::description() const
{
    return QStringLiteral(
        "Runs the reference file service in the foreground until Ctrl-C. It prints its\n"
        "address (http://127.0.0.1:PORT) as the first line. Stored files are the plain\n"
        "files in DIR; upload sessions live in DIR/.uploads and survive a restart.");
}

QList<Command::Option> ServeCommand::options() const
{
    return {{QCommandLineOption(QStringLiteral("root"), QStringLiteral("folder of the stored files (default: ./zt-store)"),
                                QStringLiteral("DIR"))},
            {QCommandLineOption(QStringLiteral("port"),
                                QStringLiteral("port on 127.0.0.1; 0 picks a free one (default: 8080)"),
                                QStringLiteral("N")),
             0, 65535}};
}

int ServeCommand::run()
{
    const QString script = FileServiceProcess::scriptPath();
    if (!QFileInfo::exists(script)) {
        err(QStringLiteral("ztcli: the reference file service is not at %1 (set ZT_FILESERVICE)\n").arg(script));
        return ExitSetup;
    }
    const QString root = QDir(value(QStringLiteral("root"), QStringLiteral("zt-store"))).absolutePath();
    if (!QDir().mkpath(root)) {
        err(QStringLiteral("ztcli: cannot create %1\n").arg(root));
        return ExitUsage;
    }
    const int port = int(number(QStringLiteral("port"), 8080));
    // No InterruptHandler was installed for serve, so SIGINT reaches the
    // service with the disposition ztcli was started with.
    QList<QByteArray> words{FileServiceProcess::interpreter().toLocal8Bit()};
    for (const QString &argument : FileServiceProcess::arguments(root, port))
        words.append(argument.toLocal8Bit());
    QVector<char *> argv;
    for (QByteArray &word : words)
        argv.append(word.data());
    argv.append(nullptr);
    ::execv(argv.first(), argv.data());
    err(QStringLiteral("ztcli: cannot run %1: %2\n").arg(FileServiceProcess::interpreter(),
                                                        QString::fromLocal8Bit(strerror(errno))));
    return ExitSetup;
}

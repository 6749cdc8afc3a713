#include "clirun.h"

#include <QtTest>

#include <csignal>

CliRun::CliRun(const QString &home)
    : m_env(QProcessEnvironment::systemEnvironment())
{
    const QDir dir(home);
    m_env.insert(QStringLiteral("HOME"), home);
    for (const auto &[name, folder] : {std::pair{"XDG_CONFIG_HOME", "config"}, {"XDG_CACHE_HOME", "cache"},
                                       {"XDG_DATA_HOME", "data"}, {"TMPDIR", "tmp"}}) {
        dir.mkpath(QLatin1String(folder));
        m_env.insert(QLatin1String(name), dir.filePath(QLatin1String(folder)));
    }
    // ztcli's own defaults are under test, not the harness's log settings.
    for (const char *name : {"QT_LOGGING_RULES", "QT_FORCE_STDERR_LOGGING", "ZT_SERVER", "ZT_TOKEN", "ZT_PLUGIN"})
        m_env.remove(QLatin1String(name));
    QObject::connect(&m_process, &QProcess::readyReadStandardOutput, [this] { collect(); });
    QObject::connect(&m_process, &QProcess::readyReadStandardError, [this] { collect(); });
}

CliRun::~CliRun()
{
    if (isRunning()) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

void CliRun::collect()
{
    m_out += m_process.readAllStandardOutput();
    m_err += m_process.readAllStandardError();
}

void CliRun::start(const QStringList &arguments)
{
    m_out.clear();
    m_err.clear();
    m_process.setProcessEnvironment(m_env);
    QStringList command = m_wrapper + QStringList{QStringLiteral(ZTCLI_PATH)} + arguments;
    m_process.start(command.takeFirst(), command);
    m_process.waitForStarted(10000);
}

bool CliRun::finish(int timeoutMs)
{
    const bool ended = QTest::qWaitFor([this] { return !isRunning(); }, timeoutMs);
    if (!ended) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
    collect();
    return ended;
}

ExitCode CliRun::run(const QStringList &arguments, int timeoutMs)
{
    start(arguments);
    return finish(timeoutMs) ? exitCode() : NoExit;
}

QString CliRun::serve(const QString &root)
{
    start({"serve", "--root", root, "--port", "0"});
    (void)QTest::qWaitFor([this] { return m_out.contains('\n') || !isRunning(); }, 20000);
    return QString::fromUtf8(m_out.left(m_out.indexOf('\n'))).trimmed();
}

void CliRun::interrupt()
{
    if (isRunning())
        ::kill(pid_t(m_process.processId()), SIGINT);
}

ExitCode CliRun::exitCode() const
{
    return m_process.exitStatus() == QProcess::NormalExit ? ExitCode(m_process.exitCode()) : NoExit;
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

bool ServedStore::start()
{
    if (!home.isValid() || !store.isValid())
        return false;
    url = service.serve(store.path());
    return url.startsWith(QLatin1String("http://127.0.0.1:"));
}

#pragma once

#include "../../cli/exitcode.h" // the support folder has a fileserviceprocess.h of its own

#include <QtTest>

// Runs the built ztcli as a user would, in a private home (HOME, the XDG folders and TMPDIR under it), so that
// settings, caches and partial downloads never touch the real user's. Waits are bounded and keep the caller's event
// loop running (an in-process server may be answering); a process still running at the end is killed.
class CliRun
{
public:
    explicit CliRun(const QString &home);
    ~CliRun();

    void setEnv(const QString &name, const QString &value) { m_env.insert(name, value); }
    void unsetEnv(const QString &name) { m_env.remove(name); }
    void setWrapper(const QStringList &program) { m_wrapper = program; } // ztcli runs under it
    void setStderrFile(const QString &path) { m_process.setStandardErrorFile(path, QIODevice::Append); }
    void setStdinFile(const QString &path) { m_process.setStandardInputFile(path); }

    void start(const QStringList &arguments);
    // True when it ended by itself within timeoutMs; otherwise it is killed.
    bool finish(int timeoutMs = 60000);
    // start() and finish(); the exit status, or NoExit after a time-out or crash.
    ExitCode run(const QStringList &arguments, int timeoutMs = 60000);
    // Starts `ztcli serve` over root and returns the address it prints.
    QString serve(const QString &root);

    void interrupt(); // SIGINT, as Ctrl-C sends it
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }
    ExitCode exitCode() const;
    QString out() const { return QString::fromUtf8(m_out); }
    QString err() const { return QString::fromUtf8(m_err); }
    QString output() const { return out() + err(); }

private:
    void collect();

    QProcess m_process;
    QProcessEnvironment m_env;
    QByteArray m_out;
    QByteArray m_err;
    QStringList m_wrapper;
};

bool writeFile(const QString &path, const QByteArray &content);

// `ztcli serve` over a temporary store, with a home of its own for the ztcli runs of a test; killed with it.
struct ServedStore
{
    QTemporaryDir home;
    QTemporaryDir store;
    CliRun service{home.path()};
    QString url;

    bool start(); // the address printed; false, with the reason in service.output()
    QString path(const QString &name) const { return QDir(store.path()).filePath(name); }
};

// No status ztcli exits with: it was killed, crashed or timed out. Not -1, no value of the enumeration.
constexpr ExitCode NoExit = ExitCode(255);

Q_DECLARE_METATYPE(ExitCode)

namespace QTest {
template <>
inline char *toString(const ExitCode &code) // a failed comparison shows the statuses (exitcode.h names them)
{
    return qstrdup(QByteArray::number(int(code)));
}
} // namespace QTest

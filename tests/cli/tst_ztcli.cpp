#include "clirun.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

// ztcli as a user meets it: its command line, exit statuses, help, and the
// service commands against the reference file service started by `ztcli serve`.
class tst_Ztcli : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void arguments_data();
    void arguments();
    void helpMatchesReadme_data();
    void helpMatchesReadme();
    void listShowsStoredFiles();
    void deleteRemovesFiles_data();
    void deleteRemovesFiles();
    void partialListsAndClears();

private:
    bool serviceRuns();
    static QString readmeSection();
    void storeFile(const QString &name, const QByteArray &content);

    QTemporaryDir m_home;
    QTemporaryDir m_store;
    CliRun *m_service = nullptr;
    QString m_url;
};

// Nothing listens on port 1 of the loopback interface: connections are refused at once.
static const QString Unreachable = QStringLiteral("http://127.0.0.1:1");

void tst_Ztcli::initTestCase()
{
    QVERIFY(m_home.isValid());
    QVERIFY(m_store.isValid());
}

// Started by the first test that needs it, so that the command-line tests do
// not depend on the service.
bool tst_Ztcli::serviceRuns()
{
    if (m_service)
        return m_url.startsWith(QLatin1String("http://127.0.0.1:"));
    m_service = new CliRun(m_home.path());
    m_service->start({QStringLiteral("serve"), QStringLiteral("--root"), m_store.path(),
                      QStringLiteral("--port"), QStringLiteral("0")});
    m_url = m_service->firstLine();
    if (m_url.startsWith(QLatin1String("http://127.0.0.1:")))
        return true;
    qWarning("serve said: %s", qPrintable(m_service->output()));
    return false;
}

void tst_Ztcli::cleanupTestCase()
{
    delete m_service; // kills the service if it still runs
}

void tst_Ztcli::storeFile(const QString &name, const QByteArray &content)
{
    QFile file(QDir(m_store.path()).filePath(name));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), qint64(content.size()));
}

void tst_Ztcli::arguments_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QStringList>("env"); // NAME=value
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("says"); // in stdout or stderr

    const QString missing = QDir(m_home.path()).filePath(QStringLiteral("no-such-file"));
    QTest::newRow("no arguments") << QStringList() << QStringList() << 2 << "no command given";
    QTest::newRow("unknown command") << QStringList{"frobnicate"} << QStringList() << 2 << "unknown command";
    QTest::newRow("--help") << QStringList{"--help"} << QStringList() << 0 << "Exit status:";
    QTest::newRow("help download") << QStringList{"help", "download"} << QStringList() << 0 << "--to DIR";
    QTest::newRow("download --help") << QStringList{"download", "--help"} << QStringList() << 0 << "--to DIR";
    QTest::newRow("help of no command") << QStringList{"help", "nope"} << QStringList() << 2 << "unknown command";
    QTest::newRow("--version") << QStringList{"--version"} << QStringList() << 0 << "ztcli 1.5.20";
    QTest::newRow("missing server") << QStringList{"list"} << QStringList() << 2 << "no server address";
    QTest::newRow("not a service address") << QStringList{"--server", "ftp://host", "list"} << QStringList()
                                           << 2 << "is not a file service address";
    QTest::newRow("address without its port") << QStringList{"--server", "http://127.0.0.1:", "list"}
                                              << QStringList() << 2 << "is not a file service address";
    // Unusable folders are found before the service is even asked.
    const QString underAFile = QStringLiteral(ZT_README "/sub");
    QTest::newRow("destination not writable") << QStringList{"--server", Unreachable, "download", "a", "--to", underAFile}
                                              << QStringList() << 2 << "cannot write in the destination folder";
    QTest::newRow("temp not writable") << QStringList{"--server", Unreachable, "--temp", underAFile, "download", "a"}
                                       << QStringList() << 2 << "folder for partial downloads " + underAFile;
    QTest::newRow("bad option") << QStringList{"--server", Unreachable, "list", "--frobnicate"}
                                << QStringList() << 2 << "unknown option --frobnicate";
    QTest::newRow("option of another command") << QStringList{"list", "--to", "x"} << QStringList() << 2
                                               << "belongs to \"download\"";
    QTest::newRow("option without its value") << QStringList{"list", "--server"} << QStringList() << 2
                                              << "needs a value";
    QTest::newRow("port out of range") << QStringList{"serve", "--port", "65536"} << QStringList() << 2
                                       << "from 0 to 65535";
    QTest::newRow("exists with two names") << QStringList{"--server", Unreachable, "exists", "a", "b"}
                                           << QStringList() << 2 << "exactly one";
    QTest::newRow("--output with two names") << QStringList{"--server", Unreachable, "download", "a", "b", "-o", "x"}
                                             << QStringList() << 2 << "exactly one file name";
    QTest::newRow("download without names") << QStringList{"--server", Unreachable, "download"}
                                            << QStringList() << 2 << "at least one";
    QTest::newRow("upload of a missing file") << QStringList{"--server", Unreachable, "upload", missing}
                                              << QStringList() << 2 << "is not a readable file";
    QTest::newRow("unreachable server") << QStringList{"--server", Unreachable, "list"} << QStringList() << 3
                                        << "ConnectionRefused (20480)";
    QTest::newRow("unreachable server from ZT_SERVER") << QStringList{"list"}
                                                       << QStringList{"ZT_SERVER=" + Unreachable} << 3
                                                       << "ConnectionRefused";
    // A transfer command tells an unreachable service from a failed transfer.
    QTest::newRow("unreachable server, download") << QStringList{"--server", Unreachable, "download", "a"}
                                                  << QStringList() << 3 << "ConnectionRefused";
    QTest::newRow("plugin missing") << QStringList{"--server", Unreachable, "list"}
                                    << QStringList{"ZT_PLUGIN=" + missing} << 5 << "plugin not found";
}

void tst_Ztcli::arguments()
{
    QFETCH(QStringList, args);
    QFETCH(QStringList, env);
    QFETCH(int, status);
    QFETCH(QString, says);

    CliRun cli(m_home.path());
    for (const QString &pair : env)
        cli.setEnv(pair.section(QLatin1Char('='), 0, 0), pair.section(QLatin1Char('='), 1));
    QCOMPARE(cli.run(args), status);
    QVERIFY2(cli.output().contains(says), qPrintable(cli.output()));
    // The plugin's own log stays out of sight unless asked for.
    QVERIFY2(!cli.output().contains(QLatin1String("zephyrtide.dll")), qPrintable(cli.output()));
}

QString tst_Ztcli::readmeSection()
{
    QFile file(QStringLiteral(ZT_README));
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    const QString text = QString::fromUtf8(file.readAll());
    const int start = text.indexOf(QLatin1String("\n## ztcli"));
    if (start < 0)
        return QString();
    const int end = text.indexOf(QRegularExpression(QStringLiteral("\n## (?!#)")), start + 1);
    return text.mid(start, end < 0 ? -1 : end - start);
}

void tst_Ztcli::helpMatchesReadme_data()
{
    QTest::addColumn<QString>("command"); // empty: the general help
    QTest::newRow("general") << QString();
    for (const char *command : {"serve", "list", "delete", "upload", "download", "exists", "partial", "demo"})
        QTest::newRow(command) << QString::fromLatin1(command);
}

void tst_Ztcli::helpMatchesReadme()
{
    QFETCH(QString, command);
    const QString readme = readmeSection();
    QVERIFY2(!readme.isEmpty(), "README.md has no \"## ztcli\" section");

    CliRun cli(m_home.path());
    QCOMPARE(cli.run(command.isEmpty() ? QStringList{"--help"} : QStringList{command, "--help"}), 0);
    const QString help = cli.out();
    if (command.isEmpty()) {
        // The README carries the general help verbatim.
        QVERIFY2(readme.contains(help), "README's ztcli section does not carry `ztcli --help` verbatim");
        return;
    }
    // The README shows each command's usage line and every option it takes.
    const QString usage = help.section(QLatin1Char('\n'), 0, 0).remove(QStringLiteral("Usage: "));
    QVERIFY2(readme.contains(usage), qPrintable(usage + QStringLiteral(" is not in the README")));
    auto options = QRegularExpression(QStringLiteral("--[a-z][a-z-]*")).globalMatch(help);
    while (options.hasNext()) {
        const QString option = options.next().captured();
        QVERIFY2(readme.contains(option), qPrintable(option + QStringLiteral(" of ") + command
                                                     + QStringLiteral(" is not in the README")));
    }
}

void tst_Ztcli::listShowsStoredFiles()
{
    QVERIFY(serviceRuns());
    storeFile(QStringLiteral("listed-a.txt"), "hello");
    storeFile(QStringLiteral("listed-b.bin"), QByteArray(1000, 'x'));

    CliRun cli(m_home.path());
    QCOMPARE(cli.run({"--server", m_url, "list", "--json"}), 0);
    const QJsonArray entries = QJsonDocument::fromJson(cli.out().toUtf8()).array();
    QHash<QString, qint64> sizes;
    for (const QJsonValue &entry : entries)
        sizes.insert(entry["fileName"].toString(), qint64(entry["fileSize"].toDouble()));
    QCOMPARE(sizes.value(QStringLiteral("listed-a.txt"), -1), qint64(5));
    QCOMPARE(sizes.value(QStringLiteral("listed-b.bin"), -1), qint64(1000));

    QCOMPARE(cli.run({"--server", m_url, "list"}), 0);
    QVERIFY2(cli.out().contains(QRegularExpression(QStringLiteral("listed-a\\.txt +5 +5 B"))), qPrintable(cli.out()));
    QVERIFY2(cli.out().contains(QRegularExpression(QStringLiteral("listed-b\\.bin +1000 +1000 B"))), qPrintable(cli.out()));
}

void tst_Ztcli::deleteRemovesFiles_data()
{
    QTest::addColumn<QStringList>("stored");
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<int>("status");
    QTest::addColumn<QStringList>("left");

    QTest::newRow("one stored file") << QStringList{"del-a"} << QStringList{"del-a"} << 0 << QStringList();
    QTest::newRow("two stored files") << QStringList{"del-a", "del-b"} << QStringList{"del-a", "del-b"} << 0
                                      << QStringList();
    QTest::newRow("a name not stored") << QStringList() << QStringList{"del-gone"} << 1 << QStringList();
    // The stored one still goes; the missing one sets the status.
    QTest::newRow("stored and not stored") << QStringList{"del-a", "del-c"} << QStringList{"del-gone", "del-a"}
                                           << 1 << QStringList{"del-c"};
}

void tst_Ztcli::deleteRemovesFiles()
{
    QFETCH(QStringList, stored);
    QFETCH(QStringList, names);
    QFETCH(int, status);
    QFETCH(QStringList, left);
    QVERIFY(serviceRuns());

    for (const QString &name : stored)
        storeFile(name, "content of " + name.toUtf8());
    CliRun cli(m_home.path());
    QCOMPARE(cli.run(QStringList{"--server", m_url, "delete"} + names), status);
    for (const QString &name : stored)
        QCOMPARE(QFile::exists(QDir(m_store.path()).filePath(name)), left.contains(name));
    if (status == 1)
        QVERIFY2(cli.err().contains(QLatin1String("del-gone: not on the service")), qPrintable(cli.output()));
    for (const QString &name : left)
        QFile::remove(QDir(m_store.path()).filePath(name));
}

QTEST_GUILESS_MAIN(tst_Ztcli)
// What interrupted downloads left, as the plugin lays it out: a folder per
// content with its plan record and chunk files, and a lock file beside it
// while a download runs. One folder here is locked by this (live) process.
void tst_Ztcli::partialListsAndClears()
{
    QTemporaryDir temp;
    const QDir root(temp.path());
    const auto makeFolder = [&root](const QString &tag, const QByteArray &plan, int bytes) {
        QVERIFY(root.mkpath(tag));
        QFile record(root.filePath(tag + "/.plan"));
        QVERIFY(record.open(QIODevice::WriteOnly) && record.write(plan) == plan.size());
        QFile chunk(root.filePath(tag + "/1"));
        QVERIFY(chunk.open(QIODevice::WriteOnly) && chunk.write(QByteArray(bytes, 'x')) == bytes);
    };
    makeFolder("aa", R"({"chunkSize": 50, "sha256": "", "fileName": "a.bin", "fileSize": 200})", 50);
    makeFolder("bb", R"({"chunkSize": 50, "sha256": "", "fileName": "b.bin", "fileSize": 100})", 30);
    makeFolder("cc", R"({"chunkSize": 50, "sha256": ""})", 10); // written before names were recorded
    QLockFile running(root.filePath("bb.lock"));
    QVERIFY(running.tryLock());

    CliRun cli(m_home.path());
    QCOMPARE(cli.run({"--temp", temp.path(), "partial"}), 0);
    QVERIFY2(cli.out().contains(QLatin1String("a.bin  50 B of 200 B (25%)")), qPrintable(cli.output()));
    QVERIFY2(cli.out().contains(QLatin1String("b.bin  30 B of 100 B (30%)")), qPrintable(cli.output()));
    QVERIFY2(cli.out().contains(QStringLiteral("being downloaded by process %1").arg(QCoreApplication::applicationPid())),
             qPrintable(cli.output()));
    QVERIFY2(cli.out().contains(QLatin1String("(unnamed) cc  10 B")), qPrintable(cli.output()));
    QVERIFY2(cli.out().contains(QLatin1String("3 partial download(s), 90 B")), qPrintable(cli.output()));

    QCOMPARE(cli.run({"--temp", temp.path(), "partial", "--clear", "nope.bin"}), 1);
    QCOMPARE(cli.run({"--temp", temp.path(), "partial", "--clear", "a.bin"}), 0);
    QCOMPARE(root.entryList(QDir::Dirs | QDir::NoDotAndDotDot), QStringList({"bb", "cc"}));
    // A download that runs now is never taken from under it.
    QCOMPARE(cli.run({"--temp", temp.path(), "partial", "--clear"}), 0);
    QVERIFY2(cli.err().contains(QLatin1String("kept b.bin: being downloaded")), qPrintable(cli.output()));
    QCOMPARE(root.entryList(QDir::Dirs | QDir::NoDotAndDotDot), QStringList({"bb"}));
}

#include "tst_ztcli.moc"

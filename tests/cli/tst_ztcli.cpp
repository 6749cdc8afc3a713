#include "clirun.h"

#include <QtTest>

// ztcli as a user meets it: exit statuses and messages, the environment it reads, its help
// against the README, and the service commands against the file service `ztcli serve` runs.
class tst_Ztcli : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void commands_data();
    void commands();
    void helpMatchesReadme_data();
    void helpMatchesReadme();

private:
    ServedStore m_served;
};

void tst_Ztcli::initTestCase()
{
    QVERIFY2(m_served.start(), qPrintable(m_served.service.output()));
    const QDir store(m_served.store.path());
    for (const auto &[name, content] : {std::pair{"listed-a.txt", QByteArray("hello")},
                                        {"listed-b.bin", QByteArray(1000, 'x')},
                                        {"ä b.txt", QByteArray("hello world")},
                                        {"del-a", {}},
                                        {"del-b", {}}})
        QVERIFY(writeFile(store.filePath(QString::fromUtf8(name)), content));
}

void tst_Ztcli::commands_data()
{
    QTest::addColumn<QStringList>("args"); // leading ZT_NAME=value: the environment, as env(1) takes it
    QTest::addColumn<ExitCode>("status");
    QTest::addColumn<QString>("says"); // a pattern in stdout or stderr
    QTest::addColumn<QString>("gone"); // a stored file that must be gone afterwards

    // Nothing listens on port 1 of the loopback interface: connections are refused at once.
    const QStringList refused{"--server", "http://127.0.0.1:1"};
    const QStringList served{"--server", m_served.url};
    const QString missing = QDir(m_served.home.path()).filePath(QStringLiteral("no-such-file"));
    const QString underAFile = QStringLiteral(ZT_README "/sub");
    const QString defaultTemp = QRegularExpression::escape(QDir(m_served.home.path()).filePath("cache/ztcli/partial"));
    const auto row = [](const char *tag, const QStringList &args, ExitCode status, const QString &says,
                        const QString &gone = {}) { QTest::newRow(tag) << args << status << says << gone; };
    const auto usage = [&row](const char *tag, const QStringList &args, const QString &says) {
        row(tag, args, ExitUsage, QRegularExpression::escape(says));
    };
    usage("unknown command", {"frobnicate"}, "unknown command \"frobnicate\"\nRun \"ztcli --help\"");
    usage("help of no command", {"help", "nope"}, "unknown command \"nope\"");
    usage("no command", {}, "no command given");
    usage("out of range", {"--chunk-size-mb", "4096", "list"},
          "option --chunk-size-mb needs a whole number from 0 to 4095, not \"4096\"");
    usage("a command's own out of range", {"serve", "--port", "65536"},
          "option --port needs a whole number from 0 to 65535");
    usage("not a number", {"--retry", "eighty", "list"},
          "option --retry needs a whole number from 0 to 100, not \"eighty\"");
    usage("flag with a value", {"--verbose=yes", "list"}, "option --verbose takes no value");
    usage("option without its value", {"list", "--server"}, "option --server needs a value");
    usage("unknown option", {"list", "--frobnicate"}, "unknown option --frobnicate");
    usage("option of another command", {"list", "--to", "x"}, "option --to belongs to \"download\", not to \"list\"");
    usage("list takes no operands", {"list", "x"}, "list takes no operands, got \"x\"");
    usage("exists with two names", {"exists", "a", "b"}, "exists takes exactly one file name");
    usage("--output with two names", {"download", "a", "b", "-o", "x"},
          "download with --output takes exactly one file name");
    usage("--output with --to", {"download", "a", "-o", "x", "--to", "d"}, "--output and --to cannot go together");
    usage("download without names", {"download"}, "download needs at least one file name");
    usage("partial NAME without --clear", {"partial", "a"}, "partial takes a file name only with --clear");
    usage("no server address", {"list"}, "no server address: give --server URL or set ZT_SERVER");
    usage("not a service address", {"--server", "ftp://host", "list"}, "\"ftp://host\" is not a file service address");
    usage("address without its port", {"--server", "http://127.0.0.1:", "list"},
          "\"http://127.0.0.1:\" is not a file service address");
    // Unusable local files and folders are found before the service is even asked.
    usage("destination not writable", refused + QStringList{"download", "a", "--to", underAFile},
          "cannot write in the destination folder");
    usage("temp not writable", refused + QStringList{"--temp", underAFile, "download", "a"},
          "folder for partial downloads " + underAFile);
    usage("upload of a missing file", refused + QStringList{"upload", missing}, missing + " is not a readable file");
    row("help of a command", {"help", "download"}, ExitSuccess, "--to <DIR>");
    row("--version", {"list", "--version"}, ExitSuccess, "ztcli 1\\.5\\.20, host of plugin interface Zephyrtide");
    // Every command's options are known before the command word is found: no value is taken for it.
    row("unreachable service, value before the command", {"-s", "http://127.0.0.1:1", "list"}, ExitServer,
        "ConnectionRefused \\(20480\\)");
    row("plugin missing", QStringList{"ZT_PLUGIN=" + missing} + refused + QStringList{"list"}, ExitSetup,
        "plugin not found");
    row("--verbose shows the plugin's log", QStringList{"-v"} + refused + QStringList{"list"}, ExitServer,
        "zephyrtide\\.dll: ");
    row("list", served + QStringList{"list"}, ExitSuccess, "listed-b\\.bin +1000 +1000 B ");
    row("list --json", {"ZT_SERVER=" + m_served.url, "list", "--json"}, ExitSuccess,
        "\"fileName\": \"listed-b\\.bin\",\\s+\"fileSize\": 1000");
    row("delete", served + QStringList{"delete", "del-b"}, ExitSuccess, "deleted del-b", "del-b");
    // The stored one still goes; the missing one sets the status. "--" keeps a name that starts with a dash.
    row("delete, one name not stored", served + QStringList{"delete", "del-a", "--", "--gone"}, ExitNotFound,
        "--gone: not on the service", "del-a");
    // A name the service does not have is reported; the others still come.
    row("options between names", served + QStringList{"download", "nope", "--to", m_served.home.path(), "listed-a.txt"},
        ExitNotFound, "(?s)downloaded listed-a\\.txt to .*ztcli: nope: not on the service");
    row("exists", served + QStringList{"exists", "listed-a.txt"}, ExitSuccess,
        "listed-a\\.txt: stored, 5 bytes \\(5 B\\); no partial download under " + defaultTemp);
    row("exists, not stored", served + QStringList{"exists", "nowhere.txt"}, ExitNotFound,
        "nowhere\\.txt: not on the service");
    row("exists, a blank and an umlaut", served + QStringList{"exists", "ä b.txt"}, ExitSuccess,
        "ä b\\.txt: stored, 11 bytes");
}

void tst_Ztcli::commands()
{
    QFETCH(QStringList, args);
    QFETCH(ExitCode, status);
    QFETCH(QString, says);
    QFETCH(QString, gone);
    CliRun cli(m_served.home.path());
    for (; !args.isEmpty() && args.first().startsWith("ZT_"); args.removeFirst())
        cli.setEnv(args.first().section('=', 0, 0), args.first().section('=', 1));
    QCOMPARE(cli.run(args), status);
    QVERIFY2(cli.output().contains(QRegularExpression(says)), qPrintable(cli.output()));
    // The plugin's own log stays out of sight unless asked for.
    QVERIFY2(args.contains("-v") || !cli.output().contains("zephyrtide.dll"), qPrintable(cli.output()));
    QVERIFY(gone.isEmpty() || !QFile::exists(m_served.path(gone)));
}

void tst_Ztcli::helpMatchesReadme_data()
{
    QTest::addColumn<QString>("command"); // empty: the general help
    for (const char *command : {"", "serve", "list", "delete", "upload", "download", "exists", "partial", "demo"})
        QTest::newRow(*command ? command : "general") << QString::fromLatin1(command);
}

// The README carries the general help verbatim, with every command's options, and each command's usage line.
void tst_Ztcli::helpMatchesReadme()
{
    QFETCH(QString, command);
    QFile file(QStringLiteral(ZT_README));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString readme =
        QRegularExpression("(?s)\n## ztcli.*?(?=\n## [^#]|$)").match(QString::fromUtf8(file.readAll())).captured();
    QVERIFY2(!readme.isEmpty(), "README.md has no \"## ztcli\" section");

    CliRun cli(m_served.home.path());
    QCOMPARE(cli.run(command.isEmpty() ? QStringList{"--help"} : QStringList{command, "--help"}), ExitSuccess);
    const QString help = cli.out();
    const QString usage = help.section('\n', 0, 0).remove("Usage: ");
    QVERIFY2(readme.contains(command.isEmpty() ? help : usage),
             qPrintable(usage + " or more of its help is not in the README"));
}

QTEST_GUILESS_MAIN(tst_Ztcli)
#include "tst_ztcli.moc"

#include "clirun.h"
#include "commandline.h"
#include "errortext.h"
#include "hostcommand.h"
#include "interrupthandler.h"
#include "progressdisplay.h"

#include <zephyrtide/error.h>
#include <zephyrtide/reply.h>

#include <QBuffer>
#include <QEventLoop>
#include <QRegularExpression>
#include <QTest>
#include <QTimer>

#include <csignal>

using Code = Zephyrtide::Error::ErrorCode;
Q_DECLARE_METATYPE(ErrorText::Context)

// Plays the plugin's part for HostCommand: a command slot that answers stop()
// and abort() as it is told to.
class FakeCommand : public QObject
{
    Q_OBJECT
public:
    enum Behaviour { FinishAtOnce, FinishOnStop, FinishOnAbort, NeverFinish, BusyThenFinishOnStop } behaviour = FinishAtOnce;
    int stops = 0;
    int aborts = 0;

public Q_SLOTS:
    void zt_apply_fake(Zephyrtide::Reply *reply, QVariantMap params)
    {
        const auto finish = [reply](Code code, const QVariant &result = {}) {
            Q_EMIT reply->finished({{"status", code == Code::NoError ? "success" : "fail"}, {"result", result}, {"errorCode", int(code)}});
        };
        if (behaviour == FinishAtOnce)
            return finish(Code::NoError, params.value("echo"));
        if (behaviour == BusyThenFinishOnStop)
            QTest::qWait(300); // like a probe: events run before stop() is wired
        connect(reply, &Zephyrtide::Reply::stop, this, [this, finish] {
            ++stops;
            if (behaviour == FinishOnStop || behaviour == BusyThenFinishOnStop)
                finish(Code::Stopped);
        });
        connect(reply, &Zephyrtide::Reply::abort, this, [this, finish] {
            ++aborts;
            if (behaviour != NeverFinish)
                finish(Code::Aborted);
        });
    }
};

// The parts of ztcli that need no service: the command line and its help,
// the progress display, Ctrl-C around a command, the exit statuses.
class tst_ZtcliParts : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void commandLine_data();
    void commandLine();
    void formats_data();
    void formats();
    void plainLines_data();
    void plainLines();
    void barRedrawsInPlace();
    void interruptsReachTheReply_data();
    void interruptsReachTheReply();
    void exitStatusForCodes_data();
    void exitStatusForCodes();
};

void tst_ZtcliParts::commandLine_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("error");    // empty: valid
    QTest::addColumn<QString>("command");  // to run, or whose help to show
    QTest::addColumn<QStringList>("operands");
    QTest::addColumn<QString>("option");   // "help": help is asked for, and says value
    QTest::addColumn<QString>("value");
    const auto valid = [](const char *tag, const QStringList &args, const QString &command, const QStringList &operands,
                          const QString &option, const QString &value) {
        QTest::newRow(tag) << args << QString() << command << operands << option << value;
    };
    // Every command's options are known before the command word is found: no value is taken for it.
    valid("value before the command", {"-s", "http://h:2", "list"}, "list", {}, "server", "http://h:2");
    valid("options between operands", {"download", "a", "--to", "d", "b", "--server", "x"}, "download", {"a", "b"}, "to", "d");
    valid("-- keeps a dash name an operand", {"delete", "--", "--odd"}, "delete", {"--odd"}, "quiet", "");
    valid("chunk size 0 is the plugin's", {"--chunk-size-mb", "0", "list"}, "list", {}, "chunk-size-mb", "0");
    valid("help of a command", {"help", "download"}, "download", {}, "help", "--to <DIR>");
    valid("--help skips the operand checks", {"exists", "--help"}, "exists", {}, "help", "Usage: ztcli exists [options] NAME");
    const auto error = [](const char *tag, const QStringList &args, const QString &text) {
        QTest::newRow(tag) << args << text << "" << QStringList() << "" << "";
    };
    error("number out of range", {"--chunk-size-mb", "4096", "list"}, "option --chunk-size-mb needs a whole number from 0 to 4095, not \"4096\"");
    error("not a number", {"--retry", "eighty", "list"}, "not \"eighty\"");
    error("flag with a value", {"--verbose=yes", "list"}, "option --verbose takes no value");
    error("option without its value", {"list", "--server"}, "option --server needs a value");
    error("unknown option", {"list", "--frobnicate"}, "unknown option --frobnicate");
    error("option of another command", {"list", "--to", "x"}, "option --to belongs to \"download\", not to \"list\"");
    error("no command", {}, "no command given");
    error("help of no command", {"help", "nope"}, "unknown command \"nope\"");
    error("list takes no operands", {"list", "x"}, "list takes no operands, got \"x\"");
    error("exists with two names", {"exists", "a", "b"}, "exists takes exactly one file name");
    error("--output with two names", {"download", "a", "b", "-o", "x"}, "with --output takes exactly one file name");
    error("--output with --to", {"download", "a", "-o", "x", "--to", "d"}, "cannot go together");
    error("download without names", {"download"}, "download needs at least one file name");
    error("partial NAME without --clear", {"partial", "a"}, "a file name only with --clear");
}

void tst_ZtcliParts::commandLine()
{
    QFETCH(QStringList, args);
    QFETCH(QString, error);
    QFETCH(QString, command);
    QFETCH(QStringList, operands);
    QFETCH(QString, option);
    QFETCH(QString, value);
    CommandLine line;
    QCOMPARE(line.parse(args), error.isEmpty());
    if (!error.isEmpty()) {
        QVERIFY2(line.error().contains(error), qPrintable(line.error()));
        return;
    }
    QCOMPARE(line.command() ? line.command()->name() : QString(), command);
    QCOMPARE(line.helpRequested(), option == QLatin1String("help"));
    if (line.helpRequested()) {
        QVERIFY2(line.help().contains(value), qPrintable(line.help()));
        return;
    }
    QCOMPARE(line.parser().positionalArguments().mid(1), operands);
    QCOMPARE(line.parser().value(option), value);
}

void tst_ZtcliParts::formats_data()
{
    QTest::addColumn<QString>("actual");
    QTest::addColumn<QString>("expected");
    QTest::newRow("1.5 GiB") << ProgressDisplay::bytes(3LL << 29) << "1.50 GiB";
    // A fraction of a second left still shows as a second, not as done.
    QTest::newRow("a moment left") << ProgressDisplay::timeLeft(0.2) << "0:01";
    QTest::newRow("just under a minute") << ProgressDisplay::timeLeft(59.5) << "1:00";
    QTest::newRow("over an hour") << ProgressDisplay::timeLeft(3661) << "1:01:01";
    QTest::newRow("unknown time") << ProgressDisplay::timeLeft(-1) << "--:--";
    QTest::newRow("status") << ProgressDisplay::status(50, 100, 10, 10) << "[#####.....]  50%  50 B / 100 B  10 B/s  0:05 left";
    QTest::newRow("status, size unknown") << ProgressDisplay::status(7, -1, 0, 0) << " --%  7 B / ?  0 B/s  --:-- left";
    // The plugin may report the merge on top of the bytes: capped.
    QTest::newRow("status past the total") << ProgressDisplay::status(120, 100, 0, 4)
                                           << "[####] 100%  120 B / 100 B  0 B/s  --:-- left";
}

void tst_ZtcliParts::formats()
{
    QFETCH(QString, actual);
    QFETCH(QString, expected);
    QCOMPARE(actual, expected);
}

void tst_ZtcliParts::plainLines_data()
{
    QTest::addColumn<QList<QList<qint64>>>("reports"); // {ms, done, total}; the last one: {ms} of the finish
    QTest::addColumn<qint64>("knownTotal");
    QTest::addColumn<QStringList>("lines"); // how each line starts; the last one whole
    const qint64 M = 1 << 20;
    // A line is due once a second at most: at 0, 1000 and 2500 here.
    QTest::newRow("once a second") << QList<QList<qint64>>{{0, 0, 10 * M}, {200, M, 10 * M}, {999, 2 * M, 10 * M},
                                                           {1000, 3 * M, 10 * M}, {1999, 4 * M, 10 * M}, {2500, 5 * M, 10 * M}, {4000}}
                                   << qint64(-1)
                                   << QStringList{"x    0%", "x   30%  3.0 MiB / 10.0 MiB  3.0 MiB/s", "x   50%  5.0 MiB",
                                                  "x  done: 10.0 MiB in 4.00 s, 2.5 MiB/s"};
    // 90 MiB were already on the service from the last run: the rate counts the new bytes only.
    QTest::newRow("resumed") << QList<QList<qint64>>{{0, 90 * M, 100 * M}, {1000, 95 * M, 100 * M}, {2000}} << qint64(-1)
                             << QStringList{"x   90%", "x   95%", "x  done: 100.0 MiB in 2.00 s, 5.0 MiB/s (resumed at 90%)"};
    QTest::newRow("small file in one report") << QList<QList<qint64>>{{1000, 5000, 5000}, {2000}} << qint64(-1)
                                              << QStringList{"x  100%", "x  done: 4.9 KiB in 2.00 s, 2.4 KiB/s"};
    // The plugin reports a job of empty files against one byte.
    QTest::newRow("empty file") << QList<QList<qint64>>{{1000, 1, 1}, {2000}} << qint64(0)
                                << QStringList{"x   --%  0 B / ?", "x  done: 0 B in 2.00 s, 0 B/s"};
}

void tst_ZtcliParts::plainLines()
{
    QFETCH(QList<QList<qint64>>, reports);
    QFETCH(qint64, knownTotal);
    QFETCH(QStringList, lines);
    QBuffer out;
    out.open(QIODevice::WriteOnly);
    qint64 now = 0;
    ProgressDisplay display(ProgressDisplay::Lines, &out, nullptr);
    display.setClock([&now] { return now; });
    display.begin(QStringLiteral("x"));
    display.setKnownTotal(knownTotal);
    for (const QList<qint64> &report : reports) {
        now = report.at(0);
        if (report.size() == 3)
            display.update(report.at(1), report.at(2));
    }
    display.finish(true);
    QVERIFY(!out.data().contains('\r'));
    const QStringList shown = QString::fromUtf8(out.data()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QCOMPARE(shown.size(), lines.size());
    for (int i = 0; i + 1 < lines.size(); ++i)
        QVERIFY2(shown.at(i).startsWith(lines.at(i)), qPrintable(shown.at(i)));
    QCOMPARE(shown.last(), lines.last());
}

// Redrawn about ten times a second over the same line, never filling the
// row (it would wrap and leave a row at every redraw); a note gets a line of
// its own. Narrow terminals and long names: tst_ztclitransfers, on a pty.
void tst_ZtcliParts::barRedrawsInPlace()
{
    QBuffer out;
    out.open(QIODevice::WriteOnly);
    QBuffer notes;
    notes.open(QIODevice::WriteOnly);
    qint64 now = 0;
    ProgressDisplay display(ProgressDisplay::Bar, &out, &notes);
    display.setClock([&now] { return now; });
    display.setWidth(80);
    display.begin(QStringLiteral("upload"));
    for (now = 0; now <= 1000; now += 20)
        display.update(now, 1000);
    QCOMPARE(out.data().count('\r'), 11);
    QVERIFY(!out.data().contains('\n'));
    for (const QByteArray &frame : out.data().split('\r'))
        QVERIFY2(frame.size() <= 79 + 3 /* the clear-line escape */, frame.constData());

    now = 1000;
    display.note(QStringLiteral("Stopping"));
    QVERIFY(out.data().endsWith("\r\033[K")); // the bar makes room for the note
    QCOMPARE(notes.data(), QByteArray("Stopping\n"));
    display.finish(false);
    QVERIFY2(out.data().endsWith("upload  ended at 1000 B of 1000 B (100%) after 1.00 s\n"), out.data().right(80).constData());
}

void tst_ZtcliParts::interruptsReachTheReply_data()
{
    QTest::addColumn<int>("behaviour");
    QTest::addColumn<int>("interrupts"); // SIGINTs, 150 ms apart, from 50 ms on; -1: the slot is missing
    QTest::addColumn<Code>("code");
    QTest::addColumn<int>("stops");
    QTest::addColumn<int>("aborts");
    QTest::newRow("no Ctrl-C") << int(FakeCommand::FinishAtOnce) << 0 << Code::NoError << 0 << 0;
    QTest::newRow("Ctrl-C: stop") << int(FakeCommand::FinishOnStop) << 1 << Code::Stopped << 1 << 0;
    QTest::newRow("second Ctrl-C: abort") << int(FakeCommand::FinishOnAbort) << 2 << Code::Aborted << 1 << 1;
    QTest::newRow("unanswered stop: abort after the grace time") << int(FakeCommand::FinishOnAbort) << 1 << Code::Aborted << 1 << 1;
    QTest::newRow("third Ctrl-C: stop waiting") << int(FakeCommand::NeverFinish) << 3 << Code::Aborted << 1 << 1;
    QTest::newRow("Ctrl-C while the slot still runs: stop said again")
        << int(FakeCommand::BusyThenFinishOnStop) << 1 << Code::Stopped << 1 << 0;
    QTest::newRow("no such slot") << int(FakeCommand::FinishAtOnce) << -1 << Code(-1) << 0 << 0;
}

void tst_ZtcliParts::interruptsReachTheReply()
{
    QFETCH(int, behaviour);
    QFETCH(int, interrupts);
    QFETCH(Code, code);
    QFETCH(int, stops);
    QFETCH(int, aborts);

    FakeCommand plugin;
    plugin.behaviour = FakeCommand::Behaviour(behaviour);
    InterruptHandler handler;
    QVERIFY(handler.isActive());
    HostCommand command(&plugin, interrupts < 0 ? "zt_apply_none" : "zt_apply_fake", {{"echo", "pong"}});
    command.watchInterrupts(&handler);
    command.setInterruptGraceMs(1000);
    // The timers die with this row's plugin, so no signal outlives the handler.
    for (int i = 0; i < interrupts; ++i)
        QTimer::singleShot(50 + 150 * i, &plugin, [] { ::raise(SIGINT); });
    // A hang here is the fault under test; end it rather than the test run.
    QTimer::singleShot(10000, &plugin, [] {
        for (int i = 0; i < 3; ++i)
            ::raise(SIGINT);
    });
    if (interrupts < 0)
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("No such method")));

    const CommandOutcome outcome = command.run();
    QCOMPARE(outcome.invoked, interrupts >= 0);
    QCOMPARE(outcome.succeeded(), interrupts == 0);
    QCOMPARE(Code(outcome.code), code);
    QCOMPARE(outcome.interrupted, interrupts > 0);
    QCOMPARE(plugin.stops, stops);
    QCOMPARE(plugin.aborts, aborts);
    if (interrupts == 0)
        QCOMPARE(outcome.result.toString(), QStringLiteral("pong"));
}

void tst_ZtcliParts::exitStatusForCodes_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<ErrorText::Context>("context");
    QTest::addColumn<ExitCode>("status");
    QTest::addColumn<QString>("name");
    const auto request = ErrorText::ServiceRequest;
    const auto transfer = ErrorText::Transfer;
    QTest::newRow("listing: not there") << int(Code::NotExist) << request << ExitNotFound << "NotExist";
    QTest::newRow("transfer: not there") << int(Code::NotExist) << transfer << ExitTransfer << "NotExist";
    QTest::newRow("transfer: stopped") << int(Code::Stopped) << transfer << ExitInterrupted << "Stopped";
    QTest::newRow("listing: aborted") << int(Code::Aborted) << request << ExitInterrupted << "Aborted";
    QTest::newRow("shared number 20699") << 20699 << transfer << ExitTransfer << "FileError";
    QTest::newRow("unknown number") << 12345 << transfer << ExitTransfer << "Error12345";
}

void tst_ZtcliParts::exitStatusForCodes()
{
    QFETCH(int, code);
    QFETCH(ErrorText::Context, context);
    QFETCH(ExitCode, status);
    QFETCH(QString, name);
    QCOMPARE(ExitCode(ErrorText::exitCode(code, context)), status);
    QVERIFY2(ErrorText::describe(code).startsWith(QStringLiteral("%1 (%2): ").arg(name).arg(code)),
             qPrintable(ErrorText::describe(code)));
}

QTEST_GUILESS_MAIN(tst_ZtcliParts)
#include "tst_ztcliparts.moc"

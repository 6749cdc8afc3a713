#include "clirun.h"
#include "errortext.h"
#include "hostcommand.h"
#include "interrupthandler.h"
#include "progressdisplay.h"

#include <zephyrtide/error.h>
#include <zephyrtide/reply.h>

#include <QtTest>

#include <csignal>

using Code = Zephyrtide::Error::ErrorCode;
// A code the plugin never sends, for "no answer came": -1 is no value of the enumeration (the sanitizer build
// refuses it).
constexpr Code NoAnswer = Code(1);

// Plays the plugin's part for HostCommand: a command slot that answers stop() and abort() as told.
class FakeCommand : public QObject
{
    Q_OBJECT
public:
    enum Behaviour { FinishOnAbort, NeverFinish, BusyThenFinishOnStop } behaviour = FinishOnAbort;
    int stops = 0, aborts = 0;

public Q_SLOTS:
    void zt_apply_fake(Zephyrtide::Reply *reply, QVariantMap)
    {
        const auto finish = [reply](Code code) {
            Q_EMIT reply->finished({{"status", "fail"}, {"errorCode", int(code)}});
        };
        if (behaviour == BusyThenFinishOnStop)
            QTest::qWait(300); // like a probe: events run before stop() is wired
        if (behaviour == NeverFinish)
            reply->setParent(this); // ztcli leaves an unanswered reply to the plugin that holds it
        connect(reply, &Zephyrtide::Reply::stop, this, [this, finish] {
            ++stops;
            if (behaviour == BusyThenFinishOnStop)
                finish(Code::Stopped);
        });
        connect(reply, &Zephyrtide::Reply::abort, this, [this, finish] {
            ++aborts;
            if (behaviour != NeverFinish)
                finish(Code::Aborted);
        });
    }
};

// The parts of ztcli that need no service: the progress display, Ctrl-C around a command, exit statuses.
class tst_ZtcliParts : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void formats();
    void plainLines_data();
    void plainLines();
    void barRedrawsInPlace();
    void interruptsReachTheReply_data();
    void interruptsReachTheReply();
    void exitStatusForCodes();
};

void tst_ZtcliParts::formats()
{
    QCOMPARE(ProgressDisplay::bytes(3LL << 29), QStringLiteral("1.50 GiB"));
    // A fraction of a second left still shows as a second, not as done.
    QCOMPARE(ProgressDisplay::timeLeft(0.2), QStringLiteral("0:01"));
    QCOMPARE(ProgressDisplay::timeLeft(59.5), QStringLiteral("1:00"));
    QCOMPARE(ProgressDisplay::timeLeft(3661), QStringLiteral("1:01:01"));
    QCOMPARE(ProgressDisplay::timeLeft(-1), QStringLiteral("--:--"));
    QCOMPARE(ProgressDisplay::status(50, 100, 10, 10),
             QStringLiteral("[#####.....]  50%  50 B / 100 B  10 B/s  0:05 left"));
    QCOMPARE(ProgressDisplay::status(7, -1, 0, 0), QStringLiteral(" --%  7 B / ?  0 B/s  --:-- left"));
    // The plugin may report the merge on top of the bytes: capped.
    QCOMPARE(ProgressDisplay::status(120, 100, 0, 4), QStringLiteral("[####] 100%  120 B / 100 B  0 B/s  --:-- left"));
}

void tst_ZtcliParts::plainLines_data()
{
    QTest::addColumn<QList<QList<qint64>>>("reports"); // {ms, done, total}; the last one: {ms} of the finish
    QTest::addColumn<qint64>("knownTotal");
    QTest::addColumn<QStringList>("lines"); // how each line starts; the last one whole
    const qint64 M = 1 << 20;
    // A line is due once a second at most: at 0, 1000 and 2500 here.
    QTest::newRow("once a second") << QList<QList<qint64>>{{0, 0, 10 * M}, {200, M, 10 * M}, {999, 2 * M, 10 * M},
                                                           {1000, 3 * M, 10 * M}, {1999, 4 * M, 10 * M},
                                                           {2500, 5 * M, 10 * M}, {4000}}
                                   << qint64(-1)
                                   << QStringList{"x    0%", "x   30%  3.0 MiB / 10.0 MiB  3.0 MiB/s",
                                                  "x   50%  5.0 MiB", "x  done: 10.0 MiB in 4.00 s, 2.5 MiB/s"};
    // 90 MiB were already on the service from the last run: the rate counts the new bytes only.
    QTest::newRow("resumed") << QList<QList<qint64>>{{0, 90 * M, 100 * M}, {1000, 95 * M, 100 * M}, {2000}}
                             << qint64(-1)
                             << QStringList{"x   90%", "x   95%",
                                            "x  done: 100.0 MiB in 2.00 s, 5.0 MiB/s (resumed at 90%)"};
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

// Redrawn about ten times a second over the same line, never filling the row (it would wrap and leave a row at every
// redraw); a note gets a line of its own. Narrow terminals and long names: tst_ztclitransfers, on a pty.
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
    QVERIFY2(out.data().endsWith("upload  ended at 1000 B of 1000 B (100%) after 1.00 s\n"),
             out.data().right(80).constData());
}

void tst_ZtcliParts::interruptsReachTheReply_data()
{
    QTest::addColumn<int>("behaviour");
    QTest::addColumn<int>("interrupts"); // SIGINTs, 150 ms apart, from 50 ms on; -1: the slot is missing
    QTest::addColumn<Code>("code");
    QTest::addColumn<int>("stops");
    QTest::addColumn<int>("aborts");
    // The process tests would not see a stop() or abort() that never reaches the plugin: ztcli prints and
    // cleans up as if it had. These rows count them.
    QTest::newRow("unanswered stop: abort after the grace time")
        << int(FakeCommand::FinishOnAbort) << 1 << Code::Aborted << 1 << 1;
    QTest::newRow("third Ctrl-C: stop waiting") << int(FakeCommand::NeverFinish) << 3 << Code::Aborted << 1 << 1;
    QTest::newRow("Ctrl-C while the slot still runs: stop said again")
        << int(FakeCommand::BusyThenFinishOnStop) << 1 << Code::Stopped << 1 << 0;
    QTest::newRow("no such slot") << int(FakeCommand::NeverFinish) << -1 << NoAnswer << 0 << 0;
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
    HostCommand command(&plugin, interrupts < 0 ? "zt_apply_none" : "zt_apply_fake", {});
    command.watchInterrupts(&handler);
    command.setInterruptGraceMs(1000);
    // The timers die with this row's plugin, so no signal outlives the handler.
    for (int i = 0; i < interrupts; ++i)
        QTimer::singleShot(50 + 150 * i, &plugin, [] { ::raise(SIGINT); });
    // A hang here is the fault under test; end it rather than the test run.
    QTimer::singleShot(10000, &plugin, [] { for (int i = 0; i < 3; ++i) ::raise(SIGINT); });
    if (interrupts < 0)
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("No such method")));

    const CommandOutcome outcome = command.run();
    QCOMPARE(outcome.invoked, interrupts >= 0);
    QCOMPARE(outcome.code < 0 ? NoAnswer : Code(outcome.code), code);
    QCOMPARE(outcome.interrupted, interrupts > 0);
    QCOMPARE(plugin.stops, stops);
    QCOMPARE(plugin.aborts, aborts);
}

// The same error code means another exit status for a listing than for a transfer.
void tst_ZtcliParts::exitStatusForCodes()
{
    const auto status = [](Code code, ErrorText::Context context) {
        return ExitCode(ErrorText::exitCode(int(code), context));
    };
    QCOMPARE(status(Code::NotExist, ErrorText::ServiceRequest), ExitNotFound);
    QCOMPARE(status(Code::NotExist, ErrorText::Transfer), ExitTransfer);
    QCOMPARE(status(Code::Stopped, ErrorText::Transfer), ExitInterrupted);
    QCOMPARE(status(Code::Aborted, ErrorText::ServiceRequest), ExitInterrupted);
    QCOMPARE(status(Code(12345), ErrorText::Transfer), ExitTransfer);
    QVERIFY2(ErrorText::describe(12345).startsWith("Error12345 (12345): "), qPrintable(ErrorText::describe(12345)));
}

QTEST_GUILESS_MAIN(tst_ZtcliParts)
#include "tst_ztcliparts.moc"

#pragma once

#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QPair>
#include <QString>

#include <functional>

class QIODevice;

// Shows the progress of one transfer at a time. On a terminal it redraws one
// bar line in place (bytes, percent, rate, time left) at most ten times a
// second; elsewhere it writes a plain line at most once a second; in both it
// ends with one final line. Notes (Ctrl-C messages and the like) go to the
// note device without tearing the bar.
//
// Call order per transfer: begin(), update()..., finish().
class ProgressDisplay : public QObject
{
    Q_OBJECT
public:
    enum Mode { Bar, Lines, Silent };
    using Clock = std::function<qint64()>; // milliseconds, monotonic

    // out and notes are borrowed and must outlive the display.
    ProgressDisplay(Mode mode, QIODevice *out, QIODevice *notes, QObject *parent = nullptr);

    // Progress goes to stderr, so that stdout carries only results: Bar when
    // stderr is a terminal, else Lines; Silent when the user asked for quiet.
    static Mode modeForStderr(bool quiet = false);
    void setClock(Clock clock) { m_clock = std::move(clock); }
    void setWidth(int columns) { m_width = columns; }

    Mode mode() const { return m_mode; }

    void begin(const QString &label);
    // What a resumed transfer already has, when the host knows it before the
    // first report (bytes on disk); otherwise the first report stands for it.
    void setAlreadyThere(qint64 bytes) { m_baseline = bytes >= 0 ? bytes : -1; }
    // The transfer's size when the host knows it better than the reports: an
    // upload of empty files is reported against one byte.
    void setKnownTotal(qint64 bytes) { m_knownTotal = bytes; }
    void update(qint64 done, qint64 total);
    // Final line: the size, time and average rate, or where it ended.
    void finish(bool succeeded);
    void note(const QString &text);

    // Seconds since begin(), as the final line reports it.
    double elapsedSeconds() const;

    static QString bytes(qint64 count);      // "300.0 MiB"
    static QString rate(double bytesPerSecond); // "214.3 MiB/s"
    static QString timeLeft(double seconds); // "0:07", "1:02:03", "--:--" when unknown
    static QString seconds(double seconds);  // "1.4 s"

    // The status text after the label; bar adds the bar itself.
    static QString status(qint64 done, qint64 total, double bytesPerSecond, int barWidth);

private:
    static QString fitted(const QString &label, int columns);
    qint64 now() const;
    double currentRate() const;
    void draw(bool final);
    void write(const QString &text);
    void clearBarLine();
    int terminalWidth() const;

    Mode m_mode;
    QIODevice *m_out;   // borrowed
    QIODevice *m_notes; // borrowed
    Clock m_clock;
    QElapsedTimer m_timer;
    int m_width = 0; // 0: ask the terminal

    QString m_label;
    qint64 m_started = 0;
    qint64 m_lastDraw = -1;
    qint64 m_done = 0;
    qint64 m_total = -1;
    qint64 m_baseline = -1; // the first figure reported: what a resumed transfer already had
    qint64 m_knownTotal = -1;
    bool m_barShown = false;
    QList<QPair<qint64, qint64>> m_samples; // (time, done) over the last few seconds
};

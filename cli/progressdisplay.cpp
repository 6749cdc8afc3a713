#include "progressdisplay.h"

#include <QIODevice>

#include <sys/ioctl.h>
#include <unistd.h>

namespace {
constexpr qint64 BarIntervalMs = 100;
constexpr qint64 LineIntervalMs = 1000;
constexpr qint64 RateWindowMs = 3000;
constexpr qint64 MinimumRateSpanMs = 500;
constexpr int MinimumBarWidth = 10;
constexpr int MinimumLabelWidth = 12;
}

ProgressDisplay::ProgressDisplay(Mode mode, QIODevice *out, QIODevice *notes, QObject *parent)
    : QObject(parent)
    , m_mode(mode)
    , m_out(out)
    , m_notes(notes)
{
    m_timer.start();
}

ProgressDisplay::Mode ProgressDisplay::modeForStderr(bool quiet)
{
    if (quiet)
        return Silent;
    return ::isatty(STDERR_FILENO) ? Bar : Lines;
}

qint64 ProgressDisplay::now() const
{
    return m_clock ? m_clock() : m_timer.elapsed();
}

QString ProgressDisplay::bytes(qint64 count)
{
    if (count < 0)
        return QStringLiteral("?");
    if (count < 1024)
        return QStringLiteral("%1 B").arg(count);
    const double value = double(count);
    if (count < 1024 * 1024)
        return QStringLiteral("%1 KiB").arg(value / 1024.0, 0, 'f', 1);
    if (count < qint64(1024) * 1024 * 1024)
        return QStringLiteral("%1 MiB").arg(value / (1024.0 * 1024.0), 0, 'f', 1);
    return QStringLiteral("%1 GiB").arg(value / (1024.0 * 1024.0 * 1024.0), 0, 'f', 2);
}

QString ProgressDisplay::rate(double bytesPerSecond)
{
    return bytes(qint64(bytesPerSecond)) + QStringLiteral("/s");
}

QString ProgressDisplay::timeLeft(double seconds)
{
    if (!(seconds >= 0) || seconds > 360000)
        return QStringLiteral("--:--");
    const qint64 whole = qint64(seconds + 0.999); // never claim 0:00 while bytes remain
    const qint64 h = whole / 3600, m = (whole / 60) % 60, s = whole % 60;
    if (h > 0)
        return QStringLiteral("%1:%2:%3").arg(h).arg(m, 2, 10, QLatin1Char('0')).arg(s, 2, 10, QLatin1Char('0'));
    return QStringLiteral("%1:%2").arg(m).arg(s, 2, 10, QLatin1Char('0'));
}

QString ProgressDisplay::seconds(double seconds)
{
    return QStringLiteral("%1 s").arg(seconds, 0, 'f', seconds < 10 ? 2 : 1);
}

QString ProgressDisplay::status(qint64 done, qint64 total, double bytesPerSecond, int barWidth)
{
    const bool known = total > 0;
    const double fraction = known ? qBound(0.0, double(done) / double(total), 1.0) : 0.0;
    QString text;
    if (barWidth > 0) {
        const int filled = int(fraction * barWidth);
        text += QLatin1Char('[') + QString(filled, QLatin1Char('#'))
                + QString(barWidth - filled, QLatin1Char('.')) + QStringLiteral("] ");
    }
    text += known ? QStringLiteral("%1%").arg(int(fraction * 100), 3) : QStringLiteral(" --%");
    text += QStringLiteral("  %1 / %2").arg(bytes(done), known ? bytes(total) : QStringLiteral("?"));
    text += QStringLiteral("  ") + rate(bytesPerSecond);
    const double left = bytesPerSecond > 0 && known ? double(total - done) / bytesPerSecond : -1;
    text += QStringLiteral("  ") + timeLeft(left) + QStringLiteral(" left");
    return text;
}

void ProgressDisplay::begin(const QString &label)
{
    m_label = label;
    m_started = now();
    m_lastDraw = -1;
    m_done = 0;
    m_total = -1;
    m_barShown = false;
    m_baseline = -1;
    m_knownTotal = -1;
    m_samples.clear();
}

double ProgressDisplay::currentRate() const
{
    if (m_samples.size() < 2)
        return 0;
    const auto &first = m_samples.first();
    const auto &last = m_samples.last();
    const qint64 span = last.first - first.first;
    // Less than half a second of history makes wild guesses.
    return span >= MinimumRateSpanMs ? double(last.second - first.second) * 1000.0 / double(span) : 0;
}

double ProgressDisplay::elapsedSeconds() const
{
    return double(now() - m_started) / 1000.0;
}

void ProgressDisplay::update(qint64 done, qint64 total)
{
    const qint64 t = now();
    if (m_knownTotal >= 0) {
        done = qMin(done, m_knownTotal);
        total = m_knownTotal;
    }
    m_done = done;
    m_total = total;
    // A resumed transfer starts with what is already there; the rate counts
    // only what moves now. A first report of everything is a small transfer
    // done in one step, not a resumed one.
    if (m_baseline < 0)
        m_baseline = total > 0 && done >= total ? 0 : done;
    m_samples.append({t, done});
    while (m_samples.size() > 2 && t - m_samples.at(1).first >= RateWindowMs)
        m_samples.removeFirst();

    if (m_mode == Silent)
        return;
    const qint64 interval = m_mode == Bar ? BarIntervalMs : LineIntervalMs;
    if (m_lastDraw >= 0 && t - m_lastDraw < interval)
        return;
    m_lastDraw = t;
    draw(false);
}

int ProgressDisplay::terminalWidth() const
{
    if (m_width > 0)
        return m_width;
    struct winsize size {};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    const int columns = qEnvironmentVariableIntValue("COLUMNS");
    return columns > 0 ? columns : 80;
}

void ProgressDisplay::draw(bool final)
{
    if (m_mode == Bar) {
        // A line as wide as the terminal wraps, and "\r" then goes back to
        // the start of the wrapped part only: every redraw would leave a row.
        const int width = qMax(1, terminalWidth() - 1);
        const QString figures = status(m_done, m_total, currentRate(), 0);
        // The figures are what a bar is for: a label too long for the line
        // gives way to them, and the bar takes what both leave.
        const QString label = fitted(m_label, width - 2 - figures.size());
        const QString lead = label.isEmpty() ? QString() : label + QStringLiteral("  ");
        const int room = width - lead.size() - figures.size() - 3;
        const QString line = (lead + status(m_done, m_total, currentRate(), room >= MinimumBarWidth ? room : 0))
                                 .left(width);
        write(QStringLiteral("\r\033[K") + line + (final ? QStringLiteral("\n") : QString()));
        m_barShown = !final;
        return;
    }
    if (!final)
        write(m_label + QStringLiteral("  ") + status(m_done, m_total, currentRate(), 0)
              + QLatin1Char('\n'));
}

// label as it is when it fits in columns; else its start and end around
// "...", or nothing when too little of it would be left to tell it by.
QString ProgressDisplay::fitted(const QString &label, int columns)
{
    if (label.size() <= columns)
        return label;
    if (columns < MinimumLabelWidth)
        return QString();
    const int kept = columns - 3;
    return label.left(kept - kept / 2) + QStringLiteral("...") + label.right(kept / 2);
}

void ProgressDisplay::finish(bool succeeded)
{
    if (m_mode == Silent)
        return;
    if (m_mode == Bar && m_barShown)
        draw(true);
    const double elapsed = elapsedSeconds();
    QString line;
    if (succeeded) {
        const qint64 size = qMax<qint64>(qMax<qint64>(m_total, m_done), 0);
        const qint64 had = qBound<qint64>(0, m_baseline, size);
        const double average = elapsed > 0 ? double(size - had) / elapsed : 0;
        const bool resumed = size > 0 && had * 100 > size;
        line = QStringLiteral("%1  done: %2 in %3, %4%5\n")
                   .arg(m_label, bytes(size), seconds(elapsed), rate(average),
                        resumed ? QStringLiteral(" (resumed at %1%)").arg(int(100.0 * double(had) / double(size)))
                                : QString());
    } else {
        const QString percent = m_total > 0
                                    ? QStringLiteral(" (%1%)").arg(int(100.0 * double(m_done) / double(m_total)))
                                    : QString();
        line = QStringLiteral("%1  ended at %2 of %3%4 after %5\n")
                   .arg(m_label, bytes(m_done), m_total >= 0 ? bytes(m_total) : QStringLiteral("?"),
                        percent, seconds(elapsed));
    }
    write(line);
    m_barShown = false;
}

void ProgressDisplay::clearBarLine()
{
    if (m_mode == Bar && m_barShown) {
        write(QStringLiteral("\r\033[K"));
        m_barShown = false;
        m_lastDraw = -1; // redraw at the next update
    }
}

void ProgressDisplay::note(const QString &text)
{
    clearBarLine();
    if (m_notes)
        m_notes->write(text.toUtf8() + '\n');
}

void ProgressDisplay::write(const QString &text)
{
    if (!m_out)
        return;
    m_out->write(text.toUtf8());
}

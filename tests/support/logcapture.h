#pragma once

#include <QtTest>

// Records the plugin's log lines (category "zephyrtide.dll") while it lives, so
// a test can ask whether the plugin wrote a given line; warnings and worse are
// still printed. It turns the category's debug level on while it captures: the
// suite runs with it off, and only a test that asserts a debug line pays for
// the text. One at a time.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();

    // Lines whose text contains text, of type type (a QtMsgType) or, with -1, of any.
    int count(const QString &text, int type = -1) const;
    bool contains(const QString &text) const { return count(text) > 0; }

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message);
    static void filter(QLoggingCategory *category);

    mutable QMutex m_mutex;
    QList<QPair<int, QString>> m_lines;
    QtMessageHandler m_previous;
    QLoggingCategory::CategoryFilter m_previousFilter;
};

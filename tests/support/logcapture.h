#pragma once

#include <QtTest>

// Records every log line while it lives, so a test can ask whether the plugin
// wrote a given line; warnings and worse are still printed. It turns the
// debug level of "zephyrtide.dll" on while it captures: the suite runs with
// it off, and only a test that asserts a debug line pays for the text. One at
// a time.
class LogCapture
{
public:
    struct Line
    {
        QtMsgType type;
        QString category;
        QString message;
    };

    LogCapture();
    ~LogCapture();

    QList<Line> lines() const;
    // Lines of category "zephyrtide.dll" whose text contains text.
    int count(const QString &text, QtMsgType type) const;
    int count(const QString &text) const;
    bool contains(const QString &text) const { return count(text) > 0; }
    void clear();

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message);
    static void filter(QLoggingCategory *category);
    int countLines(const QString &text, const QtMsgType *type) const;

    mutable QMutex m_mutex;
    QList<Line> m_lines;
    QtMessageHandler m_previous;
    QLoggingCategory::CategoryFilter m_previousFilter;
};

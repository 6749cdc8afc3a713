#pragma once

#include <QList>
#include <QMutex>
#include <QString>
#include <QtGlobal>

// Records every log line while it lives (and still prints them), so a test can
// ask whether the plugin wrote a given line. One at a time.
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

    mutable QMutex m_mutex;
    QList<Line> m_lines;
    QtMessageHandler m_previous;
};

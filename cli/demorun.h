#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>

class InterruptHandler;
class QIODevice;

// `ztcli demo`: the whole job end to end on this machine. It starts the
// reference file service on a free loopback port with a temporary store, makes
// sample files, uploads them through the plugin, lists them, downloads them
// into a fresh folder, compares SHA-256 with the originals and prints a
// summary. Everything it makes lives in one temporary folder that is removed,
// and the service stopped, on every way out.
class DemoRun : public QObject
{
    Q_OBJECT
public:
    static constexpr qint64 DefaultSizeMiB = 300;

    // out, err and interrupts are borrowed.
    DemoRun(QIODevice *out, QIODevice *err, InterruptHandler *interrupts, QObject *parent = nullptr);

    void setVerbose(bool verbose) { m_verbose = verbose; }
    int run(qint64 largeSizeMiB); // exit status

    struct Sample
    {
        QString name;
        qint64 size;
        QByteArray sha256;
    };
    // Writes size pseudo-random bytes (text when asText) to path and returns
    // their SHA-256; empty on a write failure or an interrupt.
    QByteArray writeSample(const QString &path, qint64 size, quint64 seed, bool asText);
    static QByteArray sha256Of(const QString &path);

private:
    bool interrupted() const;
    void say(const QString &text);
    void complain(const QString &text);

    QIODevice *m_out;
    QIODevice *m_err;
    QPointer<InterruptHandler> m_interrupts;
    bool m_verbose = false;
};

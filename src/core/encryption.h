#pragma once

#include <QByteArray>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

class QJsonDocument;

// Turns a parameter map into enciphered text and back, for records the plugin
// keeps in the user's settings (the upload-session cache). Despite their names,
// serializeDataToFile and deserializeFileToData never touch a file: the caller
// stores the text.
//
// Record format: the map as indented JSON, enciphered with AES-128-ECB under a
// key compiled into the module (zero-padded to whole blocks), then base64. The
// reader cuts the deciphered bytes after the last "}", so any padding that holds
// no "}" is dropped.
//
// The cipher-program operations (encrypt) hand a list or map to an external
// program and wait for its answer in a nested event loop; they take no lock.
class Encryption : public QObject
{
    Q_OBJECT
public:
    // Key sizes of the cipher routine; any other number selects Aes128.
    enum KeySize { Aes128 = 0, Aes192 = 1, Aes256 = 2 };

    // Uses the compiled-in key; reads the cipher program path from the
    // environment variable ZT_CIPHER_PROGRAM (empty when unset).
    explicit Encryption(QObject *parent = nullptr);
    // Uses key instead of the compiled-in one. Records written under one key
    // cannot be read under another; tests use this to prove it.
    explicit Encryption(const QByteArray &key, QObject *parent = nullptr);
    ~Encryption() override;

    // The process-wide instance, created on first use without a parent.
    static Encryption *instance();

    // The enciphered text of data, or "" when nothing came out.
    QString serializeDataToFile(const QVariantMap &data);
    // True when text deciphers to a JSON object, which then replaces data;
    // otherwise false and data stays as it was.
    bool deserializeFileToData(const QString &text, QVariantMap &data);

    // Runs the cipher program as `program encrypt <base64 of hex MD5 of seed>
    // <whitespace-free JSON>` and returns the UTF-8 bytes of the "data" string
    // of the JSON object it prints. Empty when the program is not set or does
    // not exist ("Encrypt fail"), fails to start, or ends without an answer.
    QByteArray encrypt(const QByteArray &seed, const QVariantList &list);
    QByteArray encrypt(const QByteArray &seed, const QVariantMap &map);

    QString cipherProgram() const;
    void setCipherProgram(const QString &path);

    // AES (FIPS-197) in ECB mode. key is cut or zero-extended to the length
    // the key size needs (16, 24 or 32 bytes). Encryption zero-pads data to
    // whole 16-byte blocks; decryption refuses (returns empty) data that is not
    // whole blocks.
    static QByteArray aesEncrypt(const QByteArray &data, const QByteArray &key, int keySize);
    static QByteArray aesDecrypt(const QByteArray &data, const QByteArray &key, int keySize);

private:
    QByteArray runCipherProgram(const QByteArray &seed, const QJsonDocument &document);

    QMutex m_mutex; // held over each serialize and deserialize call
    QString m_cipherProgram;
    QByteArray m_key;
};

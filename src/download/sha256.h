#pragma once

#include <QByteArray>

#include <memory>

// SHA-256 of a stream of bytes, fed in pieces. It uses the system's libcrypto
// when that can be loaded (the library Qt's TLS loads too), which hashes about
// eight times as fast as QCryptographicHash on this kind of machine; otherwise
// QCryptographicHash. Not copyable; one object per stream.
class Sha256
{
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256 &) = delete;
    Sha256 &operator=(const Sha256 &) = delete;

    void addData(const char *data, qint64 length);
    // The 32 bytes of the digest. Call once, after the last addData().
    QByteArray result();

    static QByteArray hash(const QByteArray &data);

    // The SHA-256 that a Repr-Digest field value states: "sha-256=:<base64>:",
    // perhaps among other algorithms ("sha-512=:...:, sha-256=:...:"). 32 bytes,
    // or empty when the value states none that can be used; algorithms this
    // side does not know are passed over.
    static QByteArray fromReprDigest(const QByteArray &fieldValue);

private:
    struct Engine;
    std::unique_ptr<Engine> m_engine;
};

#include "sha256.h"

#include <QCryptographicHash>
#include <QLibrary>

namespace {
constexpr int DigestSize = 32;

// The few EVP functions of libcrypto that a digest needs, resolved once. Their
// signatures are the same from OpenSSL 1.1 on.
struct LibCrypto
{
    using CtxNew = void *(*)();
    using CtxFree = void (*)(void *);
    using Md = const void *(*)();
    using Init = int (*)(void *, const void *, void *);
    using Update = int (*)(void *, const void *, size_t);
    using Final = int (*)(void *, unsigned char *, unsigned int *);

    CtxNew ctxNew = nullptr;
    CtxFree ctxFree = nullptr;
    Md sha256 = nullptr;
    Init init = nullptr;
    Update update = nullptr;
    Final final = nullptr;

    bool usable() const { return ctxNew && ctxFree && sha256 && init && update && final; }
};

LibCrypto loadLibCrypto()
{
    // The names it goes by: Linux with its soname versions, then Windows as
    // Qt's TLS backend ships it.
    const QList<QPair<QString, QString>> candidates{{QStringLiteral("crypto"), QStringLiteral("3")},
                                                    {QStringLiteral("crypto"), QStringLiteral("1.1")},
                                                    {QStringLiteral("libcrypto-3-x64"), QString()},
                                                    {QStringLiteral("libcrypto-1_1-x64"), QString()}};
    for (const auto &candidate : candidates) {
        QLibrary library(candidate.first, candidate.second); // stays loaded when this goes
        if (!library.load())
            continue;
        LibCrypto crypto;
        crypto.ctxNew = reinterpret_cast<LibCrypto::CtxNew>(library.resolve("EVP_MD_CTX_new"));
        crypto.ctxFree = reinterpret_cast<LibCrypto::CtxFree>(library.resolve("EVP_MD_CTX_free"));
        crypto.sha256 = reinterpret_cast<LibCrypto::Md>(library.resolve("EVP_sha256"));
        crypto.init = reinterpret_cast<LibCrypto::Init>(library.resolve("EVP_DigestInit_ex"));
        crypto.update = reinterpret_cast<LibCrypto::Update>(library.resolve("EVP_DigestUpdate"));
        crypto.final = reinterpret_cast<LibCrypto::Final>(library.resolve("EVP_DigestFinal_ex"));
        if (crypto.usable())
            return crypto;
    }
    return LibCrypto();
}

const LibCrypto &libCrypto()
{
    static const LibCrypto crypto = loadLibCrypto(); // thread-safe, once
    return crypto;
}
} // namespace

struct Sha256::Engine
{
    void *context = nullptr; // libcrypto's, when it is there
    QCryptographicHash fallback{QCryptographicHash::Sha256};
};

Sha256::Sha256()
    : m_engine(new Engine)
{
    const LibCrypto &crypto = libCrypto();
    if (!crypto.usable())
        return;
    m_engine->context = crypto.ctxNew();
    if (m_engine->context && crypto.init(m_engine->context, crypto.sha256(), nullptr) != 1) {
        crypto.ctxFree(m_engine->context);
        m_engine->context = nullptr;
    }
}

Sha256::~Sha256()
{
    if (m_engine->context)
        libCrypto().ctxFree(m_engine->context);
}

void Sha256::addData(const char *data, qint64 length)
{
    if (m_engine->context)
        libCrypto().update(m_engine->context, data, size_t(length));
    else
        m_engine->fallback.addData(data, int(length));
}

QByteArray Sha256::result()
{
    if (!m_engine->context)
        return m_engine->fallback.result();
    QByteArray digest(DigestSize, Qt::Uninitialized);
    unsigned int size = 0;
    libCrypto().final(m_engine->context, reinterpret_cast<unsigned char *>(digest.data()), &size);
    return size == DigestSize ? digest : QByteArray();
}

QByteArray Sha256::hash(const QByteArray &data)
{
    Sha256 sha;
    sha.addData(data.constData(), data.size());
    return sha.result();
}

QByteArray Sha256::fromReprDigest(const QByteArray &fieldValue)
{
    // A dictionary of structured fields: members separated by commas, each an
    // algorithm, "=" and a byte sequence between colons.
    for (const QByteArray &member : fieldValue.split(',')) {
        const int equals = member.indexOf('=');
        if (equals < 0 || member.left(equals).trimmed().toLower() != "sha-256")
            continue;
        const QByteArray value = member.mid(equals + 1).trimmed();
        if (value.size() < 2 || !value.startsWith(':') || !value.endsWith(':'))
            return QByteArray();
        const auto decoded = QByteArray::fromBase64Encoding(value.mid(1, value.size() - 2),
                                                            QByteArray::AbortOnBase64DecodingErrors);
        return decoded && decoded.decoded.size() == DigestSize ? decoded.decoded : QByteArray();
    }
    return QByteArray();
}

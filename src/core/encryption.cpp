#include "encryption.h"

#include "core/logging.h"

#include <QCryptographicHash>
#include <QEventLoop>
#include <QFileInfo>
#include <QGlobalStatic>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QProcess>
#include <QRegularExpression>

#include <array>

namespace {

// The record key. Changing it makes every cached record unreadable (the cache
// then starts empty), so it stays as it is.
const char RecordKey[16] = {'\x4e', '\x91', '\x2c', '\xd7', '\x05', '\xb3', '\x68', '\xfa',
                            '\x1d', '\xc6', '\x73', '\x09', '\xe4', '\x5a', '\xbf', '\x22'};
const QByteArray s_recordKey(RecordKey, sizeof(RecordKey));

constexpr int BlockSize = 16;

// ---- AES (FIPS-197) ----

using Block = std::array<quint8, BlockSize>;

struct SBoxes
{
    quint8 forward[256];
    quint8 inverse[256];
};

quint8 rotateLeft(quint8 x, int shift)
{
    return quint8((x << shift) | (x >> (8 - shift)));
}

// The S-box is the multiplicative inverse in GF(2^8) followed by the affine
// map of FIPS-197 5.1.1; building it from that definition avoids a typo in a
// 256-entry table. The known-answer tests hold it to the standard.
const SBoxes &sboxes()
{
    static const SBoxes boxes = [] {
        SBoxes b{};
        quint8 p = 1; // walks the field by powers of 3
        quint8 q = 1; // walks it by powers of 3^-1, so q = p^-1 throughout
        do {
            p = quint8(p ^ (p << 1) ^ ((p & 0x80) ? 0x1b : 0));
            q = quint8(q ^ (q << 1));
            q = quint8(q ^ (q << 2));
            q = quint8(q ^ (q << 4));
            if (q & 0x80)
                q ^= 0x09;
            const quint8 affine = q ^ rotateLeft(q, 1) ^ rotateLeft(q, 2) ^ rotateLeft(q, 3)
                                  ^ rotateLeft(q, 4);
            b.forward[p] = affine ^ 0x63;
        } while (p != 1);
        b.forward[0] = 0x63; // 0 has no inverse; the affine map of 0
        for (int i = 0; i < 256; ++i)
            b.inverse[b.forward[i]] = quint8(i);
        return b;
    }();
    return boxes;
}

quint8 xtime(quint8 x)
{
    return quint8((x << 1) ^ ((x & 0x80) ? 0x1b : 0));
}

// SubBytes and MixColumns of one byte in one step: rounds[r][x] is the column
// that byte x, coming from row r after ShiftRows, adds to its new column (row
// k of the column in bits 8k). The upload cache is enciphered whole every time
// it is written, so this is the bulk of what a write costs.
struct RoundTables
{
    quint32 rounds[4][256];
};

const RoundTables &roundTables()
{
    static const RoundTables tables = [] {
        RoundTables t;
        const quint8 *sbox = sboxes().forward;
        for (int x = 0; x < 256; ++x) {
            const quint8 s1 = sbox[x];
            const quint8 s2 = xtime(s1);
            const quint8 s3 = quint8(s2 ^ s1);
            // Row 0 of MixColumns is (2 3 1 1); each later row is the one above turned by one.
            quint32 word = quint32(s2) | quint32(s1) << 8 | quint32(s1) << 16 | quint32(s3) << 24;
            for (int r = 0; r < 4; ++r) {
                t.rounds[r][x] = word;
                word = (word << 8) | (word >> 24);
            }
        }
        return t;
    }();
    return tables;
}

class Aes
{
public:
    Aes(const QByteArray &key, int keySize)
    {
        switch (keySize) {
        case Encryption::Aes192: m_keyWords = 6; break;
        case Encryption::Aes256: m_keyWords = 8; break;
        default: m_keyWords = 4; break;
        }
        m_rounds = m_keyWords + 6;
        expandKey(key);
    }

    void encryptBlock(Block &s) const
    {
        const RoundTables &t = roundTables();
        addRoundKey(s, 0);
        for (int round = 1; round < m_rounds; ++round) {
            quint32 columns[4];
            for (int c = 0; c < 4; ++c) {
                columns[c] = t.rounds[0][s[4 * c]] ^ t.rounds[1][s[1 + 4 * ((c + 1) & 3)]]
                             ^ t.rounds[2][s[2 + 4 * ((c + 2) & 3)]] ^ t.rounds[3][s[3 + 4 * ((c + 3) & 3)]];
            }
            for (int c = 0; c < 4; ++c) {
                for (int r = 0; r < 4; ++r)
                    s[r + 4 * c] = quint8(columns[c] >> (8 * r));
            }
            addRoundKey(s, round);
        }
        const quint8 *sbox = sboxes().forward; // the last round has no MixColumns
        for (quint8 &byte : s)
            byte = sbox[byte];
        shiftRows(s);
        addRoundKey(s, m_rounds);
    }

    void decryptBlock(Block &s) const
    {
        const quint8 *inverse = sboxes().inverse;
        addRoundKey(s, m_rounds);
        for (int round = m_rounds - 1; round >= 0; --round) {
            invShiftRows(s);
            for (quint8 &byte : s)
                byte = inverse[byte];
            addRoundKey(s, round);
            if (round != 0)
                invMixColumns(s);
        }
    }

private:
    void expandKey(const QByteArray &key)
    {
        const quint8 *sbox = sboxes().forward;
        const int keyBytes = 4 * m_keyWords;
        const int totalBytes = BlockSize * (m_rounds + 1);
        for (int i = 0; i < keyBytes; ++i)
            m_roundKeys[i] = i < key.size() ? quint8(key.at(i)) : 0;
        quint8 rcon = 1;
        for (int i = keyBytes; i < totalBytes; i += 4) {
            quint8 t[4] = {m_roundKeys[i - 4], m_roundKeys[i - 3], m_roundKeys[i - 2],
                           m_roundKeys[i - 1]};
            const int word = i / 4;
            if (word % m_keyWords == 0) {
                const quint8 first = t[0];
                t[0] = sbox[t[1]] ^ rcon;
                t[1] = sbox[t[2]];
                t[2] = sbox[t[3]];
                t[3] = sbox[first];
                rcon = xtime(rcon);
            } else if (m_keyWords > 6 && word % m_keyWords == 4) {
                for (quint8 &byte : t)
                    byte = sbox[byte];
            }
            for (int j = 0; j < 4; ++j)
                m_roundKeys[i + j] = m_roundKeys[i + j - keyBytes] ^ t[j];
        }
    }

    void addRoundKey(Block &s, int round) const
    {
        for (int i = 0; i < BlockSize; ++i)
            s[i] ^= m_roundKeys[round * BlockSize + i];
    }

    // The state is column-major: byte r + 4c is row r of column c.
    static void shiftRows(Block &s)
    {
        const Block in = s;
        for (int r = 1; r < 4; ++r)
            for (int c = 0; c < 4; ++c)
                s[r + 4 * c] = in[r + 4 * ((c + r) % 4)];
    }

    static void invShiftRows(Block &s)
    {
        const Block in = s;
        for (int r = 1; r < 4; ++r)
            for (int c = 0; c < 4; ++c)
                s[r + 4 * ((c + r) % 4)] = in[r + 4 * c];
    }

    static void mixColumns(Block &s)
    {
        for (int c = 0; c < 4; ++c) {
            quint8 *col = &s[4 * c];
            const quint8 a0 = col[0], a1 = col[1], a2 = col[2], a3 = col[3];
            const quint8 all = a0 ^ a1 ^ a2 ^ a3;
            // 2a ^ 3b ^ c ^ d = a ^ (a ^ b ^ c ^ d) ^ 2(a ^ b), and so on round the column.
            col[0] = a0 ^ all ^ xtime(a0 ^ a1);
            col[1] = a1 ^ all ^ xtime(a1 ^ a2);
            col[2] = a2 ^ all ^ xtime(a2 ^ a3);
            col[3] = a3 ^ all ^ xtime(a3 ^ a0);
        }
    }

    // The inverse matrix is the forward one times {04 00 05 00}: a cheap
    // pre-step, then mixColumns, instead of four general products per byte.
    static void invMixColumns(Block &s)
    {
        for (int c = 0; c < 4; ++c) {
            quint8 *col = &s[4 * c];
            const quint8 u = xtime(xtime(quint8(col[0] ^ col[2])));
            const quint8 v = xtime(xtime(quint8(col[1] ^ col[3])));
            col[0] ^= u;
            col[1] ^= v;
            col[2] ^= u;
            col[3] ^= v;
        }
        mixColumns(s);
    }

    int m_keyWords = 4;
    int m_rounds = 10;
    quint8 m_roundKeys[BlockSize * 15] = {}; // room for AES-256's 15 round keys
};

template <typename BlockFunction>
QByteArray forEachBlock(QByteArray data, BlockFunction function)
{
    Block block;
    for (int offset = 0; offset < data.size(); offset += BlockSize) {
        char *bytes = data.data() + offset;
        std::copy(bytes, bytes + BlockSize, block.begin());
        function(block);
        std::copy(block.begin(), block.end(), bytes);
    }
    return data;
}

Q_GLOBAL_STATIC(Encryption, s_instance)

} // namespace

Encryption::Encryption(QObject *parent)
    : Encryption(s_recordKey, parent)
{
}

Encryption::Encryption(const QByteArray &key, QObject *parent)
    : QObject(parent)
    , m_cipherProgram(qEnvironmentVariable("ZT_CIPHER_PROGRAM"))
    , m_key(key)
{
}

Encryption::~Encryption() = default;

Encryption *Encryption::instance()
{
    return s_instance();
}

QByteArray Encryption::aesEncrypt(const QByteArray &data, const QByteArray &key, int keySize)
{
    const Aes aes(key, keySize);
    QByteArray padded = data;
    const int remainder = padded.size() % BlockSize;
    if (remainder != 0)
        padded.append(BlockSize - remainder, '\0');
    return forEachBlock(padded, [&aes](Block &block) { aes.encryptBlock(block); });
}

QByteArray Encryption::aesDecrypt(const QByteArray &data, const QByteArray &key, int keySize)
{
    if (data.size() % BlockSize != 0)
        return QByteArray(); // a cut-off block cannot be deciphered
    const Aes aes(key, keySize);
    return forEachBlock(data, [&aes](Block &block) { aes.decryptBlock(block); });
}

QString Encryption::serializeDataToFile(const QVariantMap &data)
{
    QMutexLocker locker(&m_mutex);
    const QByteArray json = QJsonDocument(QJsonObject::fromVariantMap(data)).toJson();
    const QByteArray cipher = aesEncrypt(json, m_key, Aes128);
    const QString text = QString::fromLatin1(cipher.toBase64());
    qCDebug(ztLog) << "serializeDataToFile serial started";
    if (text.isEmpty()) {
        qCCritical(ztLog) << "serializeDataToFile is empty!";
        return QString();
    }
    return text;
}

bool Encryption::deserializeFileToData(const QString &text, QVariantMap &data)
{
    QMutexLocker locker(&m_mutex);
    // Text with anything but base64 in it is not a record; it deciphers to nothing.
    const QByteArray::FromBase64Result decoded = QByteArray::fromBase64Encoding(
        text.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    QByteArray plain;
    if (decoded)
        plain = aesDecrypt(*decoded, m_key, Aes128);
    qCDebug(ztLog) << "deserializeFileToData serial started";
    if (plain.isEmpty()) {
        qCCritical(ztLog) << "deserializeFileToData is empty3!";
        return false;
    }
    plain.truncate(plain.lastIndexOf('}') + 1); // drops the padding; no "}" leaves nothing
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(plain, &error);
    if (error.error != QJsonParseError::NoError) {
        qCDebug(ztLog) << "deserializeFileToData json parse failed" << error.error;
        return false;
    }
    data = document.object().toVariantMap();
    return true;
}

QByteArray Encryption::encrypt(const QByteArray &seed, const QVariantList &list)
{
    return runCipherProgram(seed, QJsonDocument(QJsonArray::fromVariantList(list)));
}

QByteArray Encryption::encrypt(const QByteArray &seed, const QVariantMap &map)
{
    return runCipherProgram(seed, QJsonDocument(QJsonObject::fromVariantMap(map)));
}

QString Encryption::cipherProgram() const
{
    return m_cipherProgram;
}

void Encryption::setCipherProgram(const QString &path)
{
    m_cipherProgram = path;
}

QByteArray Encryption::runCipherProgram(const QByteArray &seed, const QJsonDocument &document)
{
    const QByteArray seedDigest =
        QCryptographicHash::hash(seed, QCryptographicHash::Md5).toHex().toBase64();
    if (!QFileInfo(m_cipherProgram).isFile()) {
        qCDebug(ztLog) << "Encrypt fail";
        return QByteArray();
    }
    static const QRegularExpression whitespace(QStringLiteral("\\s"));
    const QString json = QString::fromUtf8(document.toJson()).remove(whitespace);

    QProcess process;
    QEventLoop loop;
    QByteArray result;
    bool done = false;
    const auto leave = [&] {
        done = true;
        loop.quit();
    };
    connect(&process, &QProcess::readyReadStandardOutput, &loop, [&] {
        if (!process.atEnd()) {
            const QJsonDocument answer = QJsonDocument::fromJson(process.readAll());
            result = answer.object().value(QLatin1String("data")).toString().toUtf8();
        }
        leave();
    });
    // Without these a program that exits silently or cannot start would keep
    // the loop waiting for output that never comes.
    connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), &loop,
            leave);
    connect(&process, &QProcess::errorOccurred, &loop, [&](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart || error == QProcess::Crashed)
            leave();
    });

    process.setReadChannel(QProcess::StandardOutput);
    process.start(m_cipherProgram,
                  {QStringLiteral("encrypt"), QString::fromLatin1(seedDigest), json},
                  QIODevice::ReadWrite);
    if (!done)
        loop.exec();

    if (process.state() != QProcess::NotRunning) {
        // The answer is in; the program has nothing more to say to us.
        process.kill();
        process.waitForFinished();
    }
    return result;
}

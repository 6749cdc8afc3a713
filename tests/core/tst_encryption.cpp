#include "core/encryption.h"
#include "logcapture.h"

#include <QtTest>

namespace {
// A key of the tests' own, so they can build texts the way a record is built.
const QByteArray TestKey = QByteArray::fromHex("0f1e2d3c4b5a69788796a5b4c3d2e1f0");

QString recordText(const QByteArray &plain)
{
    return QString::fromLatin1(Encryption::aesEncrypt(plain, TestKey, Encryption::Aes128).toBase64());
}
} // namespace

class tst_Encryption : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QFileInfo(QStringLiteral(ZT_CIPHER_STUB)).isExecutable(), ZT_CIPHER_STUB);
        QFile plain(m_dir.filePath("cipher.txt"));
        QVERIFY(plain.open(QIODevice::WriteOnly) && plain.write("not a program\n") > 0);
    }

    // FIPS-197 Appendix C: plaintext 00112233..ff under the keys 000102.. of each length.
    void aesKnownAnswers_data()
    {
        QTest::addColumn<int>("keySize");
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QByteArray>("cipher");
        const QByteArray key = QByteArray::fromHex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
        const QByteArray cipher128 = QByteArray::fromHex("69c4e0d86a7b0430d8cdb78070b4c55a");
        QTest::newRow("C.1 AES-128") << int(Encryption::Aes128) << key.left(16) << cipher128;
        QTest::newRow("C.2 AES-192") << int(Encryption::Aes192) << key.left(24)
                                     << QByteArray::fromHex("dda97ca4864cdfe06eaf70a0ec0d7191");
        QTest::newRow("C.3 AES-256") << int(Encryption::Aes256) << key
                                     << QByteArray::fromHex("8ea2b7ca516745bfeafc49904b496089");
        QTest::newRow("unknown size 7 falls back to AES-128") << 7 << key.left(16) << cipher128;
    }
    void aesKnownAnswers()
    {
        QFETCH(int, keySize);
        QFETCH(QByteArray, key);
        QFETCH(QByteArray, cipher);
        const QByteArray plain = QByteArray::fromHex("00112233445566778899aabbccddeeff");
        QCOMPARE(Encryption::aesEncrypt(plain, key, keySize).toHex(), cipher.toHex());
        QCOMPARE(Encryption::aesDecrypt(cipher, key, keySize).toHex(), plain.toHex());
    }

    void roundTrip_data()
    {
        QTest::addColumn<QVariantMap>("map");
        QTest::newRow("empty") << QVariantMap();
        QTest::newRow("every JSON type") << QVariantMap{
            {"filePath", "/home/ann/report 2024.pdf"}, {"empty", ""}, {"quote", "a \"quoted\" \\ back}slash{"},
            {"int", 42}, {"negative", -7}, {"fraction", 3.25}, {"large", qlonglong(1) << 40}, {"yes", true},
            {"no", false}, {"名前", "写真 🌄"}, {"list", QVariantList{}},
            {"uploadInfo", QVariantMap{{"uploadID", "u-1"},
                                       {"chunks", QVariantList{QVariantMap{{"url", "http://h/p?partNumber=1"}},
                                                               QVariantList{1, "two", false}}}}}};
        // 48 bytes of indented JSON exactly: the text needs no padding at all.
        QTest::newRow("whole blocks") << QVariantMap{{"abcdefghijklmnopqrstuvwxyz01234", "zz"}};
    }
    void roundTrip()
    {
        QFETCH(QVariantMap, map);
        const QString text = Encryption(TestKey).serializeDataToFile(map);
        QVERIFY2(text.size() % 4 == 0 && QRegularExpression("^[A-Za-z0-9+/]+={0,2}$").match(text).hasMatch(),
                 qPrintable(text));
        QVariantMap back{{"stale", 1}};
        QVERIFY(Encryption(TestKey).deserializeFileToData(text, back));
        QCOMPARE(back, map);
        // The process-wide instance, under the compiled-in key, does the same.
        QVariantMap again;
        QVERIFY(Encryption::instance()->deserializeFileToData(Encryption::instance()->serializeDataToFile(map), again));
        QCOMPARE(again, map);
    }

    void reading_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("logLine"); // empty: read, whatever follows the last "}"
        const QString emptyLine = QStringLiteral("deserializeFileToData is empty3!");
        const QString parseLine = QStringLiteral("deserializeFileToData json parse failed");
        QVariantMap big;
        for (int i = 0; i < 20; ++i)
            big.insert(QStringLiteral("key%1").arg(i), QVariantMap{{"nested", i}});
        const QString good = Encryption(TestKey).serializeDataToFile(big);
        const QByteArray goodBytes = QByteArray::fromBase64(good.toLatin1());
        const QByteArray json = QJsonDocument::fromVariant(Padded).toJson();

        QTest::newRow("padded with zeros") << recordText(json + QByteArray(11, '\0')) << QString();
        QTest::newRow("padded with a block of 0x10") << recordText(json + QByteArray(16, '\x10')) << QString();
        QTest::newRow("padded with bytes that are not text") << recordText(json + QByteArray("\xff\x01{\x80\x7f", 5))
                                                             << QString();
        QTest::newRow("written under another key") << Encryption(QByteArray(16, 'k')).serializeDataToFile(big)
                                                   << parseLine;
        QTest::newRow("truncated mid-block") << good.left(good.size() - 10) << emptyLine;
        // Whole blocks are gone: what is left deciphers, but its last "}" closes
        // a nested map, so the text is not a document.
        QTest::newRow("truncated by two blocks")
            << QString::fromLatin1(goodBytes.left(goodBytes.size() - 32).toBase64()) << parseLine;
        QTest::newRow("not base64") << QStringLiteral("this is not base64!") << emptyLine;
        QTest::newRow("stray character in base64") << good.left(8) + QLatin1Char('*') + good.mid(8) << emptyLine;
        QTest::newRow("empty") << QString() << emptyLine;
        QTest::newRow("deciphers to prose") << recordText("no braces in here at all") << parseLine;
        QTest::newRow("deciphers to broken JSON") << recordText("{\"a\": }") << parseLine;
    }
    // A refused text leaves the map as it was and says why.
    void reading()
    {
        QFETCH(QString, text);
        QFETCH(QString, logLine);
        LogCapture log;
        const QVariantMap before{{"keep", "me"}, {"n", 1}};
        QVariantMap map = before;
        QCOMPARE(Encryption(TestKey).deserializeFileToData(text, map), logLine.isEmpty());
        QCOMPARE(map, logLine.isEmpty() ? Padded : before);
        if (!logLine.isEmpty())
            QCOMPARE(log.count(logLine), 1);
    }

    void cipherProgram_data()
    {
        QTest::addColumn<QVariant>("payload");
        QTest::addColumn<QString>("json");
        // Every whitespace character of the JSON text goes, also inside strings;
        // a tab or newline in a value is an escape there ("\t"), which stays.
        QTest::newRow("list") << QVariant(QVariantList{QVariantMap{{"name", "a b\tc"}}, 1, true})
                              << QStringLiteral(R"([{"name":"ab\tc"},1,true])");
        QTest::newRow("map") << QVariant(QVariantMap{{"z", QVariantList{"x y", 2.5}}, {"a", "line\nbreak"}})
                             << QStringLiteral(R"({"a":"line\nbreak","z":["xy",2.5]})");
        QTest::newRow("empty list") << QVariant(QVariantList()) << QStringLiteral("[]");
    }
    // The program comes from the environment; it gets "encrypt", the Base64 of
    // the seed's lower-case hex MD5, and the compact JSON.
    void cipherProgram()
    {
        QFETCH(QVariant, payload);
        QFETCH(QString, json);
        const QByteArray seed("seed for the cipher program");
        qputenv("ZT_CIPHER_PROGRAM", ZT_CIPHER_STUB);
        const auto restore = qScopeGuard([] { qunsetenv("ZT_CIPHER_PROGRAM"); });
        Encryption encryption;
        const QByteArray answer = payload.type() == QVariant::List ? encryption.encrypt(seed, payload.toList())
                                                                   : encryption.encrypt(seed, payload.toMap());
        const QByteArray hexDigest = QCryptographicHash::hash(seed, QCryptographicHash::Md5).toHex();
        QCOMPARE(QString::fromUtf8(answer).split('\n'),
                 QStringList({"encrypt", QString::fromLatin1(hexDigest.toBase64()), json}));
    }

    // A program that exits without an answer must not leave encrypt() waiting (the test's time limit).
    void cipherProgramFailures_data()
    {
        QTest::addColumn<QString>("program");
        QTest::addColumn<QByteArray>("mode");
        QTest::addColumn<bool>("encryptFail");
        QTest::newRow("no path") << QString() << QByteArray() << true;
        QTest::newRow("missing file") << QStringLiteral("/nonexistent/cipher") << QByteArray() << true;
        QTest::newRow("a folder") << QDir::tempPath() << QByteArray() << true;
        QTest::newRow("not executable") << m_dir.filePath("cipher.txt") << QByteArray() << false;
        QTest::newRow("exits without an answer") << QStringLiteral(ZT_CIPHER_STUB) << QByteArray("silent") << false;
    }
    void cipherProgramFailures()
    {
        QFETCH(QString, program);
        QFETCH(QByteArray, mode);
        QFETCH(bool, encryptFail);
        qputenv("ZT_CIPHER_STUB_MODE", mode);
        const auto restore = qScopeGuard([] { qunsetenv("ZT_CIPHER_STUB_MODE"); });
        LogCapture log;
        Encryption encryption;
        encryption.setCipherProgram(program);
        QCOMPARE(encryption.encrypt("seed", QVariantList{1, 2}), QByteArray());
        QCOMPARE(encryption.encrypt("seed", QVariantMap{{"a", 1}}), QByteArray());
        QCOMPARE(log.count("Encrypt fail"), encryptFail ? 2 : 0);
    }

private:
    QTemporaryDir m_dir;
    const QVariantMap Padded{{"uploadInfo", QVariantMap{{"uploadID", "s-9"}}}, {"n", 5}};
};

QTEST_MAIN(tst_Encryption)
#include "tst_encryption.moc"

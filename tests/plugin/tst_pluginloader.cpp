#include "hostcall.h"
#include "logcapture.h"

#include <zephyrtide/manager.h>

#include <QJsonObject>
#include <QPluginLoader>
#include <QPointer>
#include <QStandardPaths>
#include <QTest>

// Loads the built module exactly as the host does and talks to it only through
// the meta-object system.
class tst_PluginLoader : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void metadata();
    void sameInstanceUntilDeleted();
    void destructorTearsDownManager();
    void slotsTheHostCalls_data();
    void slotsTheHostCalls();

private:
    QPluginLoader m_loader{QStringLiteral(ZT_PLUGIN_FILE)};
};

void tst_PluginLoader::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY2(m_loader.load(), qPrintable(m_loader.errorString()));
}

void tst_PluginLoader::metadata()
{
    const QJsonObject meta = m_loader.metaData();
    QCOMPARE(meta.value("IID").toString(), QStringLiteral("Zephyrtide.AdvancedInterface/1.0"));
    QCOMPARE(meta.value("className").toString(), QStringLiteral("ZTServer"));
    const QJsonObject own = meta.value("MetaData").toObject();
    QCOMPARE(own.value("name").toString(), QStringLiteral("ztServer"));
    QCOMPARE(own.value("version").toString(), QStringLiteral("1.0.0"));
}

void tst_PluginLoader::sameInstanceUntilDeleted()
{
    QPointer<QObject> first = m_loader.instance();
    QVERIFY(first);
    QCOMPARE(first->metaObject()->className(), "ZTServer");
    QCOMPARE(m_loader.instance(), first.data());
    delete first.data();
    QVERIFY(first.isNull());
    QObject *second = m_loader.instance();
    QVERIFY(second);
    QCOMPARE(m_loader.instance(), second);
}

void tst_PluginLoader::destructorTearsDownManager()
{
    Zephyrtide::Manager host;
    QObject *root = m_loader.instance();
    QVERIFY(QMetaObject::invokeMethod(root, "zt_set_manager", Q_ARG(Zephyrtide::Manager *, &host)));

    LogCapture log;
    delete root;
    QCOMPARE(log.count(QStringLiteral("ZTServer unload"), QtDebugMsg), 1);
    QCOMPARE(log.count(QStringLiteral("__cdecl ZTServer::~ZTServer(void)"), QtDebugMsg), 1);

    // A new root builds a new GlobalManager, which knows no host manager yet.
    root = m_loader.instance();
    QCOMPARE(log.count(QStringLiteral("zephyrtide dll"), QtInfoMsg), 1);
    HostCall call(root, "zt_apply_fileList");
    call.wait();
    QCOMPARE(call.error(), Zephyrtide::Error::NoManager);
}

void tst_PluginLoader::slotsTheHostCalls_data()
{
    QTest::addColumn<QByteArray>("signature");
    for (const char *slot : {"zt_set_manager(Zephyrtide::Manager*)",
                             "zt_apply(Zephyrtide::Reply*,QVariantMap)", "zt_apply(Zephyrtide::Reply*)",
                             "zt_apply_startUpload(Zephyrtide::Reply*,QVariantMap)",
                             "zt_apply_startDownload(Zephyrtide::Reply*,QVariantMap)",
                             "zt_apply_fileList(Zephyrtide::Reply*,QVariantMap)",
                             "zt_apply_delete(Zephyrtide::Reply*,QVariantMap)",
                             "zt_apply_setIP(Zephyrtide::Reply*,QVariantMap)"})
        QTest::newRow(slot) << QByteArray(slot);
}

void tst_PluginLoader::slotsTheHostCalls()
{
    QFETCH(QByteArray, signature);
    const QMetaObject *meta = m_loader.instance()->metaObject();
    const int index = meta->indexOfSlot(signature.constData());
    QVERIFY2(index >= 0, signature.constData());
    QCOMPARE(meta->method(index).access(), QMetaMethod::Public);
}

QTEST_MAIN(tst_PluginLoader)
#include "tst_pluginloader.moc"

#include "hostcall.h"
#include "logcapture.h"

#include <zephyrtide/manager.h>

#include <QtTest>

// Loads the built module exactly as the host does and talks to it only through
// the meta-object system.
class tst_PluginLoader : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QStandardPaths::setTestModeEnabled(true);
        QVERIFY2(m_loader.load(), qPrintable(m_loader.errorString()));
    }

    // What the host checks before it makes an instance, and the slots it calls by name.
    void hostContract()
    {
        const QJsonObject meta = m_loader.metaData();
        QCOMPARE(meta.value("IID").toString(), QStringLiteral("Zephyrtide.AdvancedInterface/1.0"));
        QCOMPARE(meta.value("className").toString(), QStringLiteral("ZTServer"));
        QCOMPARE(meta.value("MetaData").toObject().value("name").toString(), QStringLiteral("ztServer"));
        QCOMPARE(meta.value("MetaData").toObject().value("version").toString(), QStringLiteral("1.0.0"));
        const QMetaObject *root = m_loader.instance()->metaObject();
        for (const char *slot : {"zt_set_manager(Zephyrtide::Manager*)", "zt_apply(Zephyrtide::Reply*,QVariantMap)",
                                 "zt_apply(Zephyrtide::Reply*)", "zt_apply_startUpload(Zephyrtide::Reply*,QVariantMap)",
                                 "zt_apply_startDownload(Zephyrtide::Reply*,QVariantMap)",
                                 "zt_apply_fileList(Zephyrtide::Reply*,QVariantMap)",
                                 "zt_apply_delete(Zephyrtide::Reply*,QVariantMap)",
                                 "zt_apply_setIP(Zephyrtide::Reply*,QVariantMap)"}) {
            const int index = root->indexOfSlot(slot);
            QVERIFY2(index >= 0 && root->method(index).access() == QMetaMethod::Public, slot);
        }
    }

    void destructorTearsDownManager()
    {
        Zephyrtide::Manager host;
        QObject *root = m_loader.instance();
        QVERIFY(QMetaObject::invokeMethod(root, "zt_set_manager", Q_ARG(Zephyrtide::Manager *, &host)));
        LogCapture log;
        delete root;
        QCOMPARE(log.count("ZTServer unload", QtDebugMsg), 1);
        QCOMPARE(log.count("__cdecl ZTServer::~ZTServer(void)", QtDebugMsg), 1);
        // A new root builds a new GlobalManager, which knows no host manager yet.
        root = m_loader.instance();
        QCOMPARE(log.count("zephyrtide dll", QtInfoMsg), 1);
        HostCall call(root, "zt_apply_fileList");
        call.wait();
        QCOMPARE(call.error(), Zephyrtide::Error::NoManager);
    }

private:
    QPluginLoader m_loader{QStringLiteral(ZT_PLUGIN_FILE)};
};

QTEST_MAIN(tst_PluginLoader)
#include "tst_pluginloader.moc"

#include "pluginhost.h"

#include <zephyrtide/manager.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>

PluginHost::PluginHost(QObject *parent)
    : QObject(parent)
    , m_manager(new Zephyrtide::Manager(this))
{
}

PluginHost::~PluginHost()
{
    // The root's destructor tears down the plugin's process-wide objects while
    // the manager they point at still exists.
    delete m_root.data();
}

QString PluginHost::defaultPluginPath()
{
    const QString fromEnvironment = qEnvironmentVariable("ZT_PLUGIN");
    if (!fromEnvironment.isEmpty())
        return fromEnvironment;
    // Beside the build's ztcli, or where `make install` puts it.
    const QDir programDir(QCoreApplication::applicationDirPath());
    const QString built = programDir.absoluteFilePath(QStringLiteral("../plugins/libztServer.so"));
    const QString installed = QDir::cleanPath(programDir.absoluteFilePath(QStringLiteral(ZT_INSTALLED_PLUGIN)));
    return QFileInfo::exists(built) || !QFileInfo::exists(installed) ? built : installed;
}

bool PluginHost::load(const QString &path)
{
    if (!QFileInfo::exists(path)) {
        m_error = QStringLiteral("plugin not found at %1 (build it, or set ZT_PLUGIN)").arg(path);
        return false;
    }
    m_loader.setFileName(path);
    const QJsonObject meta = m_loader.metaData();
    if (meta.isEmpty()) {
        m_error = QStringLiteral("%1 is not a Qt plugin: %2").arg(path, m_loader.errorString());
        return false;
    }
    const QString iid = meta.value(QStringLiteral("IID")).toString();
    const QJsonObject own = meta.value(QStringLiteral("MetaData")).toObject();
    const QString name = own.value(QStringLiteral("name")).toString();
    const QString version = own.value(QStringLiteral("version")).toString();
    if (iid != QLatin1String(Iid) || name != QLatin1String(PluginName)
        || version != QLatin1String(PluginVersion)) {
        m_error = QStringLiteral("%1 is not the expected plugin: interface \"%2\", name \"%3\", "
                                 "version \"%4\"; expected \"%5\", \"%6\", \"%7\"")
                      .arg(path, iid, name, version, QLatin1String(Iid), QLatin1String(PluginName),
                           QLatin1String(PluginVersion));
        return false;
    }
    m_root = m_loader.instance();
    if (!m_root) {
        m_error = QStringLiteral("cannot load %1: %2").arg(path, m_loader.errorString());
        return false;
    }
    return true;
}

bool PluginHost::open(const QString &path, const QVariantMap &config)
{
    if (!load(path))
        return false;
    configure(config);
    return attach();
}

void PluginHost::configure(const QVariantMap &config)
{
    m_manager->setConfigData(config);
}

bool PluginHost::attach()
{
    if (!m_root)
        return false;
    const bool called = QMetaObject::invokeMethod(m_root, "zt_set_manager", Qt::DirectConnection,
                                                  Q_ARG(Zephyrtide::Manager *, m_manager));
    if (!called)
        m_error = QStringLiteral("the plugin's root object has no zt_set_manager slot");
    return called;
}

QObject *PluginHost::commandObject(const char *className) const
{
    if (!m_root)
        return nullptr;
    const auto children = m_root->findChildren<QObject *>();
    for (QObject *child : children) {
        if (qstrcmp(child->metaObject()->className(), className) == 0)
            return child;
    }
    return nullptr;
}

#pragma once

#include <QObject>
#include <QPluginLoader>
#include <QPointer>
#include <QVariantMap>

namespace Zephyrtide {
class Manager;
}

// Loads libztServer.so the way the desktop host does and plays the host's
// part: it checks the interface id and metadata, obtains the root object,
// owns the host manager with its configuration and hands it to the root.
//
// Call order: load() → configure() → attach(); then call the root's slots
// (HostCommand). The destructor deletes the root before the manager, as a
// host that unloads the plugin does.
class PluginHost : public QObject
{
    Q_OBJECT
public:
    static constexpr const char *Iid = "Zephyrtide.AdvancedInterface/1.0";
    static constexpr const char *PluginName = "ztServer";
    static constexpr const char *PluginVersion = "1.0.0";

    explicit PluginHost(QObject *parent = nullptr);
    ~PluginHost() override;

    // ZT_PLUGIN, else ../plugins/libztServer.so next to the executable.
    static QString defaultPluginPath();

    bool load(const QString &path);
    // load(), configure() and attach() in one.
    bool open(const QString &path, const QVariantMap &config);
    QString errorString() const { return m_error; }

    // The host's configuration: {"startDownload": {"chunkSize", "temporaryStoragePath"}, "token"}.
    void configure(const QVariantMap &config);
    bool attach(); // zt_set_manager

    QObject *root() const { return m_root.data(); }
    Zephyrtide::Manager *manager() const { return m_manager; }
    // A command object under the root, found by class name as a host reaches it.
    QObject *commandObject(const char *className) const;

private:
    QPluginLoader m_loader;
    QPointer<QObject> m_root;          // the plugin's; deleted by us on the way out
    Zephyrtide::Manager *m_manager;    // child
    QString m_error;
};

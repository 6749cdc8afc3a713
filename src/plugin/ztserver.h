#pragma once

#include <QObject>
#include <QPointer>
#include <QVariantMap>

class StartDownload;
class StartUpload;

namespace Zephyrtide {
class Manager;
class Reply;
}

// The plugin's root object. The host obtains it through qt_plugin_instance,
// calls zt_set_manager first, then the zt_apply_* slots by name. Every slot
// reports through the reply it is given, never through a return value, and
// finishes that reply exactly once.
class ZTServer : public QObject
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "Zephyrtide.AdvancedInterface/1.0" FILE "ztserver.json")
public:
    explicit ZTServer(QObject *parent = nullptr);
    ~ZTServer() override;

public Q_SLOTS:
    void zt_set_manager(Zephyrtide::Manager *manager);
    void zt_apply(Zephyrtide::Reply *reply, QVariantMap params = QVariantMap());
    void zt_apply_startUpload(Zephyrtide::Reply *reply, QVariantMap params);
    void zt_apply_startDownload(Zephyrtide::Reply *reply, QVariantMap params);
    void zt_apply_fileList(Zephyrtide::Reply *reply, QVariantMap params);
    void zt_apply_delete(Zephyrtide::Reply *reply, QVariantMap params);
    void zt_apply_setIP(Zephyrtide::Reply *reply, QVariantMap params);

private:
    void requestFileService(Zephyrtide::Reply *reply, const QString &path, const QVariantMap &body);

    StartDownload *m_startDownload = nullptr; // child
    StartUpload *m_startUpload = nullptr; // child
};

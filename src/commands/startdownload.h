#pragma once

#include "core/zterrorcode.h"

#include <QList>
#include <QMutex>
#include <QObject>
#include <QVariantMap>

namespace Zephyrtide {
class Manager;
class Reply;
}
class GlobalManager;

// The download command object. zt_apply_start runs one batch per call: each
// entry of "files" is {"url", "filename", "path"}, where "path" is the
// destination file (the folder that holds it is created), e.g. "filename"
// "a.txt" and "path" "/data/in/a.txt". The reply gets downloadProgress and
// keepAlive while the batch runs and finishes once, with one map
// {"url", "path", "filename", "fileSize"} per destination. The reply's stop()
// keeps the chunks for a later run. The host's "startDownload" configuration
// ("chunkSize" in MiB, "temporaryStoragePath") is read once, on first use.
class StartDownload : public QObject
{
    Q_OBJECT
public:
    explicit StartDownload(QObject *parent = nullptr);
    ~StartDownload() override;

public Q_SLOTS:
    void zt_apply(Zephyrtide::Reply *reply, QVariantMap params = QVariantMap());
    void zt_apply_start(Zephyrtide::Reply *reply, QVariantMap params = QVariantMap());
    void zt_set_manager(Zephyrtide::Manager *manager);
    void zt_apply_isExist(Zephyrtide::Reply *reply, QVariantMap params);

private:
    void applyConfiguration();

    bool m_configured = false;
    QList<QVariant> m_list;
    QMutex m_mutex;
    GlobalManager *m_global;
};

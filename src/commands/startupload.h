#pragma once

#include "core/zterrorcode.h"

#include <QObject>
#include <QVariantMap>

namespace Zephyrtide {
class Manager;
class Reply;
}
class CloudUploader;
class GlobalManager;

// The upload command object. Each zt_apply_start makes its own CloudUploader,
// tied to the host's reply: it is deleted when the reply is destroyed. Progress
// goes out as the reply's uploadProgress; the reply finishes once, with one
// result map per file, or fails with the job's code. The reply's stop() keeps
// every file's session for a later run; abort() forgets them.
//
// zt_apply_uploadList lists the process-wide upload job, which is a different
// object from the per-request uploaders: files started through zt_apply_start
// never appear there.
class StartUpload : public QObject
{
    Q_OBJECT
public:
    explicit StartUpload(QObject *parent = nullptr);
    ~StartUpload() override;

    static CloudUploader *uploadJob();

Q_SIGNALS:
    void requestFinished(QVariant result, ZTErrorCode error);

public Q_SLOTS:
    void zt_apply(Zephyrtide::Reply *reply, QVariantMap params = QVariantMap());
    void zt_set_manager(Zephyrtide::Manager *manager);
    void zt_apply_start(Zephyrtide::Reply *reply, QVariantMap params);
    void zt_apply_removeAll(Zephyrtide::Reply *reply, QVariantMap params);
    void zt_apply_uploadList(Zephyrtide::Reply *reply, QVariantMap params);

private:
    GlobalManager *m_global;
};

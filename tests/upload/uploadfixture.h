#pragma once

#include "core/globalmanager.h"
#include "scriptedserver.h"
#include "testenvironment.h"
#include "upload/uploadglobal.h"
#include "uploadservice.h"

#include <zephyrtide/manager.h>

#include <QtTest>

// What the file and job tests share: temporary settings and files, a scripted
// upload service on loopback and a host manager where the plugin's globals
// look for them, an empty upload cache; tearDown() leaves no global behind.
struct UploadFixture
{
    TestEnvironment environment;
    QTemporaryDir dir;
    QScopedPointer<ScriptedServer> server;
    QScopedPointer<UploadService> service;
    QScopedPointer<Zephyrtide::Manager> host;

    bool setUp()
    {
        server.reset(new ScriptedServer);
        if (!server->start())
            return false;
        service.reset(new UploadService(server.data()));
        host.reset(new Zephyrtide::Manager);
        GlobalManager::instance()->setManager(host.data());
        GlobalManager::instance()->setFileServiceAddress(server->baseUrl());
        UploadGlobal::instance()->removeAll();
        return true;
    }

    void tearDown()
    {
        service.reset();
        server.reset();
        UploadGlobal::destroy();
        GlobalManager::destroy();
        host.reset();
    }

    QString makeFile(const QString &name, const QByteArray &content)
    {
        QFile file(dir.filePath(name));
        return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() ? file.fileName() : QString();
    }
};

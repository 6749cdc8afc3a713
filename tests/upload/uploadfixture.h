#pragma once

#include "core/globalmanager.h"
#include "scriptedserver.h"
#include "upload/uploadglobal.h"
#include "uploadservice.h"

#include <zephyrtide/manager.h>

#include <QtTest>

// What the file and job tests share: a scripted upload service on loopback and
// a host manager, installed where the plugin's globals look for them, and an
// empty upload cache. tearDown() leaves no global behind for the next test.
struct UploadFixture
{
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
        UploadGlobal::instance()->setManager(host.data());
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
};

#pragma once

#include <QString>
#include <QTemporaryDir>

// Keeps a test away from the real user's files: standard paths in test mode and
// QSettings (native and INI, user scope) in a temporary folder. Make one before
// the first use of settings, e.g. as a member of the test object.
class TestEnvironment
{
public:
    TestEnvironment();
    QString settingsPath() const { return m_settings.path(); }

private:
    QTemporaryDir m_settings;
};

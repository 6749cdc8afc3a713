#pragma once

#include <QtTest>

// Keeps a test away from the real user's files: standard paths in test mode,
// HOME and the XDG folders in a temporary folder (test mode leaves Documents,
// where downloads go by default, where it is) and QSettings (native and INI,
// user scope) in another. Make one before the first use of settings or paths,
// e.g. as a member of the test object; processes the test starts inherit it.
class TestEnvironment
{
public:
    TestEnvironment();
    QString settingsPath() const { return m_settings.path(); }
    QString homePath() const { return m_home.path(); }

private:
    QTemporaryDir m_home;
    QTemporaryDir m_settings;
};

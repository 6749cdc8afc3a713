#include "testenvironment.h"

#include <QSettings>
#include <QStandardPaths>

TestEnvironment::TestEnvironment()
{
    QStandardPaths::setTestModeEnabled(true);
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_settings.path());
}

#pragma once

#include <QLoggingCategory>

// Every line the plugin writes goes through this one category, "zephyrtide.dll".
Q_DECLARE_LOGGING_CATEGORY(ztLog)

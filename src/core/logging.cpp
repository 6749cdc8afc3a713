#include "logging.h"

Q_LOGGING_CATEGORY(ztLog, "zephyrtide.dll")

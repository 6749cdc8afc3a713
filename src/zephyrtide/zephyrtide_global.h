#pragma once

#include <QtCore/qglobal.h>

#if defined(ZEPHYRTIDE_LIBRARY)
#  define ZEPHYRTIDE_EXPORT Q_DECL_EXPORT
#else
#  define ZEPHYRTIDE_EXPORT Q_DECL_IMPORT
#endif

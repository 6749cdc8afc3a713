#pragma once

#include <zephyrtide/error.h>
#include <zephyrtide/manager.h>

// The host's enumerations under the plugin's own names; GlobalManager registers
// them with Qt as "ZTErrorCode", "ZTHttpRequestType" and "ZTEncryptType".
using ZTErrorCode = Zephyrtide::Error::ErrorCode;
using ZTHttpRequestType = Zephyrtide::Manager::HttpRequestType;
using ZTEncryptType = Zephyrtide::Manager::HttpEncryptType;

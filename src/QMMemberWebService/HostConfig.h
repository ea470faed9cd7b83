#pragma once

#include <string>

#include "qmmemberwebservice_export.h"

// Host names are deployment configuration: compiled defaults per target,
// and QM_API_HOST / QM_WEB_HOST (a host may carry ":port") override them
// for every target.
namespace QMHostConfig {

enum Target { Development = 1, SecondDevelopment = 2, Staging = 3, Production = 0 };

QMMEMBERWEBSERVICE_EXPORT std::wstring WebHost(int target);
QMMEMBERWEBSERVICE_EXPORT std::wstring ApiHost(int target);

} // namespace QMHostConfig

#pragma once

// The service domain this build accepts, for spelling out expected addresses.

#include <string>

#include "build_config.h"

inline const std::string D = ondrel::build::kServiceDomain;

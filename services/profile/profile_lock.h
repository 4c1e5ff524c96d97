// Within the process a profile file is not read while one is written.
#pragma once

#include <shared_mutex>

#include "base/never_destroyed.h"

inline constinit NeverDestroyed<std::shared_mutex> g_profileLock;

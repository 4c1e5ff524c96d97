// Doing something in another network name space.
#pragma once

#include <functional>

// Calls `work` in the name space (KEMD_NETWORK_HERE: in the caller's thread) and returns its
// result; an errno number when the name space cannot be entered. The caller's thread never leaves
// its own.
[[nodiscard]] int RunInNameSpace(int nameSpace, const std::function<int()>& work);

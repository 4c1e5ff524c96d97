// Refuses builds whose std types are laid out otherwise than the daemon's. Headers that hand std
// types to the daemon, or keep them in their classes, include this one; the others (module.h,
// trace.h, trace_object.h, event.h, exit_event.h, semaphore.h, module_switch.h) go with any C++
// library.
#pragma once

#include <cstddef>  // says which library it is

#if defined(_LIBCPP_VERSION)
#error "kemd: the daemon has libstdc++: build without -stdlib=libc++, or use module.h and trace.h"
#elif defined(_GLIBCXX_DEBUG)
#error "kemd: the daemon has no _GLIBCXX_DEBUG: build without it (_GLIBCXX_ASSERTIONS may stay)"
#elif defined(_GLIBCXX_USE_CXX11_ABI) && !_GLIBCXX_USE_CXX11_ABI
#error "kemd: the daemon has the C++11 std::string: build without -D_GLIBCXX_USE_CXX11_ABI=0"
#endif

// The size of a class as the daemon has it. Whoever changes one changes the binary interface.
#define KEMD_CLASS_SIZE(name, bytes)                                                        \
    static_assert(sizeof(name) == (bytes), #name                                            \
                  " has another size than in the daemon: build the module for x86-64 with " \
                  "libstdc++ and without options that change the layout of types")

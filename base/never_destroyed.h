// Holds a process-wide object that stays usable after `main` has returned: threads of extension
// modules may still run while the process ends, so no destructor may take it from them.
#pragma once

template <typename T>
union NeverDestroyed {
    constexpr NeverDestroyed() : object() {}
    ~NeverDestroyed() {}  // NOLINT(modernize-use-equals-default): a defaulted one would be deleted
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;

    T object;
};

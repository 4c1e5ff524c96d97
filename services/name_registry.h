// A table of named objects that creators share within the process: one for events, one for
// semaphores. It owns the names only.
//
// Any thread may call; constant-initialised. A caller that looks up and then creates holds its
// own lock around both, taken before the one of the table.
#pragma once

#include <memory>
#include <vector>

#include "base/recursive_mutex.h"

class NameRegistry {
  public:
    constexpr NameRegistry() = default;

    // Null when there is none of that name.
    [[nodiscard]] void* Find(const char* name);
    // Replaces the object of that name. False when memory does not suffice.
    [[nodiscard]] bool Put(const char* name, void* object);
    void Remove(const char* name);

  private:
    struct Entry {
        std::unique_ptr<char[]> name;
        void* object;
    };
    // The first entry that does not sort before `name`.
    std::vector<Entry>::iterator Seek(const char* name);
    bool Matches(std::vector<Entry>::iterator position, const char* name) const;

    RecursiveMutex m_lock;
    std::vector<Entry> m_entries;  // sorted by name
};

using EventRegistry = NameRegistry;
using SemaphoreRegistry = NameRegistry;

// Semaphores are looked up here; nothing in kemd enters one.
SemaphoreRegistry& NamedSemaphores();

#include "trace/environment.h"

#include <cstdlib>
#include <cstring>
#include <new>

std::unique_ptr<char[]> CopyText(const char* text) {
    const size_t size = std::strlen(text) + 1;
    std::unique_ptr<char[]> copy(new (std::nothrow) char[size]);
    if (copy) std::memcpy(copy.get(), text, size);
    return copy;
}

static void TakeTable(NamedValue* entry) {
    for (; entry->name != nullptr; ++entry) {
        const char* value = std::getenv(entry->name);
        entry->value = value != nullptr ? CopyText(value) : nullptr;
    }
}

void EnvironmentSnapshot::Take() {
    TakeTable(environment.data());
    TakeTable(configuration.data());
}

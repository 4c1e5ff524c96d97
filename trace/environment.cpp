#include "trace/environment.h"

#include <cstdlib>

#include "trace/names.h"

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

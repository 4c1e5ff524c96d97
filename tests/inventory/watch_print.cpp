// Prints what a watch of the inventory delivers until standard input ends, a line for each change:
// "new|gone|changed KIND NAME [FIELD ...]".
#include <stdio.h>
#include <unistd.h>

#include <cstring>

#include "kemd/inventory.h"

namespace {

void Print(void* /*user*/, const KemdInventoryChange* change) {
    const KemdInventoryItem* const item = change->after != nullptr ? change->after : change->before;
    const char* const what = change->before == nullptr  ? "new"
                             : change->after == nullptr ? "gone"
                                                        : "changed";
    printf("%s %s %s %s", what, KemdInventoryItemKind(item), KemdInventoryItemName(item),
           KemdInventoryItemId(item));
    for (uint32_t i = 0; i < change->fieldCount; ++i) {
        const KemdInventoryFieldChange& field = change->fields[i];
        printf(" %s=%s>%s", field.name, field.before != nullptr ? field.before : "",
               field.after != nullptr ? field.after : "");
    }
    printf("\n");
    fflush(stdout);
}

}  // namespace

int main() {
    KemdInventoryWatch* watch = nullptr;
    const int error = KemdInventoryWatchOpen(&watch, KEMD_INVENTORY_ALL, Print, nullptr);
    if (error != 0) {
        fprintf(stderr, "inventory_watch: %s\n", strerror(error));
        return 1;
    }
    printf("watching\n");
    fflush(stdout);
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    KemdInventoryWatchClose(watch);
    return 0;
}

// The table of fields, and the page that says what each of them means.
#include "inventory/fields.h"

#include "inventory/item.h"
#include "tests/world.h"

// "| `link_width` |".
TEST(InventoryFields, EachHasItsRowInTheDocuments) {
    const std::string page = ReadFile("/docs/inventory-fields.md");
    for (const InventoryFieldInfo& info : kInventoryFields) {
        EXPECT_TRUE(Contains(page, "`" + std::string(info.name) + "`")) << info.name;
    }
    for (unsigned i = 0; i <= static_cast<unsigned>(ItemKind::kMount); ++i) {
        const std::string kind = KindWord(static_cast<ItemKind>(i));
        EXPECT_TRUE(Contains(page, "`" + kind + "`")) << kind;
    }
}

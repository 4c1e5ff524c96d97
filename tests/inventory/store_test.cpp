// Inventories in files: what was written is read back, and nothing else is.
#include "inventory/store.h"

#include <sys/stat.h>

#include "inventory/difference.h"
#include "inventory/host_inventory.h"
#include "tests/world.h"

namespace {

namespace fs = std::filesystem;

void AddValues(InventoryField field, int times, KemdInventoryItem& item) {
    for (int i = 0; i < times; ++i) {
        if (field.Info().kind == KEMD_INVENTORY_TEXT) {
            item.Add(field, "</" + std::to_string(i) + "&\"\\ \xe2\x82\xac");
        } else {
            item.AddNumber(field, field.Info().kind == KEMD_INVENTORY_YES ? 1 : UINT64_MAX - i);
        }
    }
}

// An item with every field that there is, and texts that JSON must escape.
KemdInventory EveryField() {
    KemdInventory inventory;
    inventory.time = 1795387462;
    inventory.sections = KEMD_INVENTORY_DRIVES | KEMD_INVENTORY_VOLUMES;
    constexpr size_t kOfAnItem = 100;
    for (size_t position = 0; position < kInventoryFields.size(); ++position) {
        if (position % kOfAnItem == 0) {
            inventory.Add(ItemKind::kDrive, "drive:\"a\\b\" \xc3\xa9", "a\tb\x1b").parent = "p:1";
        }
        KemdInventoryItem& item = inventory.items.back();
        const InventoryFieldInfo& info = kInventoryFields.at(position);
        const InventoryField field = *InventoryField::Find(info.name);
        AddValues(field, (info.flags & kList) != 0 ? 3 : 1, item);
    }
    inventory.Add(ItemKind::kMount, "mount:/", "/");
    inventory.warnings.emplace_back("a warning");
    inventory.Note("drive:sda", "Permission denied");
    return inventory;
}

TEST(InventoryStore, ReadsBackWhatItWrote) {
    const KemdInventory inventory = EveryField();
    WriteFile("/tmp/old/inventory.json", "old");
    ASSERT_EQ(SaveInventory(inventory, "/tmp/old/inventory.json"), 0);
    struct stat status {};
    ASSERT_EQ(stat("/tmp/old/inventory.json", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    KemdInventory loaded;
    std::string fault;
    ASSERT_EQ(LoadInventory("/tmp/old/inventory.json", loaded, fault), 0) << fault;
    EXPECT_EQ(InventoryJson(loaded), InventoryJson(inventory));
    EXPECT_TRUE(CompareInventories(inventory, loaded, true).empty());
    EXPECT_EQ(loaded.items.size(), inventory.items.size());
    EXPECT_EQ(loaded.items[0].values.size(), inventory.items[0].values.size());
    EXPECT_EQ(loaded.items[0].name, "a b ");  // no control characters

    EXPECT_EQ(SaveInventory(inventory, "/tmp/none/inventory.json"), ENOENT);
    WriteFile("/full/rest", std::string(4096, 'x'));
    EXPECT_EQ(SaveInventory(inventory, "/full/inventory.json"), ENOSPC);
    EXPECT_EQ(std::distance(fs::directory_iterator("/full"), {}), 1);
    EXPECT_EQ(LoadInventory("/tmp/none", loaded, fault), ENOENT);
    EXPECT_EQ(fault, "No such file or directory");
    EXPECT_EQ(LoadInventory("/tmp", loaded, fault), EISDIR);
}

std::string Document(const std::string& items, const std::string& sections = "\"pci\"",
                     const std::string& version = "1") {
    return R"({"format":"kemd inventory","version":)" + version + R"(,"time":5,"sections":[)" +
           sections + R"(],"items":[)" + items + R"(],"warnings":[],"notes":[]})";
}

// What is too large to be read back does not replace what is there.
TEST(InventoryStore, KeepsNothingThatItCannotRead) {
    const char* const path = "/tmp/old/large.json";
    WriteFile(path, "old");
    KemdInventory inventory;
    inventory.warnings.emplace_back(kLargestInventory, 'x');
    EXPECT_EQ(SaveInventory(inventory, path), EFBIG);
    EXPECT_EQ(ReadFile(path), "old");
    fs::resize_file(path, kLargestInventory + 1);
    std::string fault;
    EXPECT_EQ(LoadInventory(path, inventory, fault), EFBIG);
    fs::remove(path);
}

// A drive that sleeps or was not asked has no other health than before.
TEST(InventoryStore, ComparesHealthThatIsKnown) {
    const auto with = [](const char* health, const char* warning) {
        KemdInventory inventory;
        inventory.sections = KEMD_INVENTORY_DRIVES;
        KemdInventoryItem& drive = inventory.Add(ItemKind::kDrive, "drive:1", "sda");
        drive.Add("health", health);
        drive.Add("critical_warning", warning);
        return inventory;
    };
    const struct {
        const char *before, *after;
        size_t changes;
        size_t withVolatile;
    } cases[] = {{"ok", "failing", 1, 1}, {"ok", "unknown", 0, 1}, {"", "ok", 0, 1}};
    for (const auto& [before, after, changes, withVolatile] : cases) {
        const KemdInventory first = with(before, "");
        const KemdInventory second = with(after, "temperature");
        EXPECT_EQ(CompareInventories(first, second, false).size(), changes) << after;
        EXPECT_EQ(CompareInventories(first, second, true).size(), withVolatile) << after;
    }
}

TEST(InventoryStore, RefusesWhatIsNoInventory) {
    const std::string head = R"({"kind":"pci","id":"pci:1","name":"1",)";
    const std::pair<std::string, std::string> cases[] = {
        {"", "a value is missing at byte 1"},
        {Document("").substr(0, 40), "a text does not end at byte 41"},
        {"[]", "it is no inventory of kemd"},
        {R"({"format":"other"})", "it is no inventory of kemd"},
        {R"({"format":"kemd inventory","version":"1"})", "its version is missing"},
        {Document("", "", "0"), "its version is missing"},
        {R"({"format":"kemd inventory","version":1,"time":1.5})", "its time is missing"},
        {R"({"format":"kemd inventory","version":1,"time":1})", "its items are missing"},
        {R"({"format":"kemd inventory","version":1,"time":1,"items":[]})", "its notes are missing"},
        {Document("", "1"), "its sections are no texts"},
        {Document(head + R"("model":"x"},5)"), "item 2: no object"},
        {Document(R"({"kind":"pci"})"), "item 1: kind or id is missing"},
        {Document(head + R"("parent":7})"), "item 1: parent is no text"},
        {Document(head + R"("model":7})"), "item 1: model is no text"},
        {Document(head + R"("size":"7"})"), "item 1: size is no whole number"},
        {Document(head + R"("size":-1})"), "item 1: size is no whole number"},
        {Document(head + R"("size":18446744073709551616})"), "item 1: size is no whole number"},
        {Document(head + R"("size":[7]})"), "item 1: size is no whole number"},
    };
    for (const auto& [json, expected] : cases) {
        KemdInventory inventory;
        std::string fault;
        EXPECT_EQ(ParseInventory(json, inventory, fault), EBADMSG) << json;
        EXPECT_EQ(fault, expected) << json;
    }
}

// A file of a later version: what is known counts.
TEST(InventoryStore, LeavesOutWhatItDoesNotKnow) {
    KemdInventory inventory;
    std::string fault;
    ASSERT_EQ(ParseInventory(
                  Document(R"({"kind":"pci","id":"pci:1","name":"1","model":"m","flux":[{"a":1}]},)"
                           R"({"kind":"teleporter","id":"t:1","name":"t"},)"
                           R"({"kind":"pci","id":"pci:1","name":"again"})",
                           R"("pci","teleporters")", "9"),
                  inventory, fault),
              0)
        << fault;
    ASSERT_EQ(inventory.items.size(), 1U);
    EXPECT_EQ(inventory.items[0].Text("model"), "m");
    EXPECT_EQ(inventory.sections, KEMD_INVENTORY_PCI);
    const std::string left = ": this version does not know it; left out";
    EXPECT_EQ(inventory.notes,
              (std::vector<std::string>{"section teleporters" + left, "field flux" + left,
                                        "kind teleporter" + left,
                                        "item pci:1: it is there twice; the first one counts"}));
}

}  // namespace

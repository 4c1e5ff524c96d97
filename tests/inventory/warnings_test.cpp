// What needs attention, and what does not.
#include "inventory/host_inventory.h"
#include "inventory/sources.h"
#include "inventory/store.h"
#include "tests/world.h"

namespace {

// The warnings about items that are given as in a saved inventory.
std::vector<std::string> WarningsOf(const std::string& items, const std::string& notes = "") {
    KemdInventory inventory;
    std::string fault;
    EXPECT_EQ(ParseInventory(R"({"format":"kemd inventory","version":1,"time":1,"sections":[],)"
                             R"("items":[)" +
                                 items + R"(],"warnings":[],"notes":[)" + notes + "]}",
                             inventory, fault),
              0)
        << fault;
    EXPECT_EQ(inventory.notes.size(),
              static_cast<size_t>(std::count(notes.begin(), notes.end(), '"')) / 2);
    FindWarnings(inventory);
    return inventory.warnings;
}

std::string Item(const std::string& kind, const std::string& name, const std::string& fields) {
    return R"({"kind":")" + kind + R"(","id":")" + kind + ":" + name + R"(","name":")" + name +
           R"(",)" + fields + "}";
}

std::string Link(const std::string& fields) {
    return Item("pci", "0000:03:00.0",
                R"("class_id":"0200","link_width":4,"link_width_max":16,"port_width_max":8,)"
                R"("link_speed":2500,"link_speed_max":16000,"port_speed_max":8000,)" +
                    fields);
}

std::string Module(const std::string& name, int channel, int size, int rated, int configured) {
    return Item("memory_module", name,
                R"("channel":)" + std::to_string(channel) + R"(,"size":)" + std::to_string(size) +
                    R"(,"rated_speed":)" + std::to_string(rated) + R"(,"configured_speed":)" +
                    std::to_string(configured));
}

std::string Drive(const std::string& name, const std::string& fields) {
    return Item("drive", name, R"("model":"M","vendor":"V",)" + fields);
}

TEST(InventoryWarnings, FindsWhatNeedsAttentionAndNothingElse) {
    const struct {
        std::string items;
        std::vector<std::string> expected;
    } cases[] = {
        {Link(R"("link_degraded":["width","speed"])"),
         {"PCI 0000:03:00.0 runs with 4 of 8 lanes", "PCI 0000:03:00.0 runs at 2.5 of 8 GT/s"}},
        {Link(R"("link_limited":["width","speed"])"),
         {"PCI 0000:03:00.0 has 16 lanes, its slot only 8"}},
        {Link(R"("revision":"01")"), {}},
        {Item("pci", "1", R"("link_width":4,"link_width_max":8,"link_degraded":["width"])"),
         {"PCI 1 runs with 4 of 8 lanes"}},
        // An idle display adapter.
        {Item("pci", "1", R"("class_id":"0300","link_degraded":["speed"])"), {}},

        {Module("A", 1, 8, 3200, 2400) + "," + Module("B", 2, 8, 3200, 2400) + "," +
             Module("C", 2, 8, 2400, 2400),
         {"memory runs at 2400 of 3200 MT/s: A, B"}},
        {Module("A", 1, 8, 3200, 3200) + "," + Module("B", 1, 8, 3200, 3200) + "," +
             Module("C", 2, 0, 0, 0),
         {"memory is in one of 2 channels only"}},
        {Module("A", 1, 8, 3200, 0) + "," + Module("B", 1, 0, 0, 0), {}},

        {Drive("sda", R"("health":"failing","critical_warning":["spare","read-only"])"),
         {"drive sda (M) is failing: spare, read-only"}},
        {Drive("sda", R"("health":"passed","critical_warning":["temperature"])"),
         {"drive sda (M) warns: temperature"}},
        {Drive("sda", R"("health":"passed","percentage_used":100)"),
         {"drive sda (M) has used 100 % of its life"}},
        {Drive("sda", R"("health":"unknown","percentage_used":99)"), {}},

        {Drive("sda", R"("firmware":"1")") + "," + Drive("sdb", R"("firmware":"2")") + "," +
             Drive("sdc", R"("firmware":"1")") + "," +
             Item("drive", "sdd", R"("model":"other","firmware":"3")"),
         {"drives V M have different firmware: 1 (sda, sdc), 2 (sdb)"}},
        {Drive("sda", R"("firmware":"1")") + "," + Drive("sdb", R"("firmware":"1")"), {}},

        {Item("volume", "md0", R"("degraded":1,"raid_disks":3,"failed_members":["sdb1"])"),
         {"volume md0 is degraded: 1 of 3 missing: failed sdb1"}},
        {Item("volume", "md0", R"("degraded":0,"raid_disks":3)"), {}},

        {Item("kernel", "Linux",
              R"("vulnerabilities":["mds: Vulnerable: no microcode","l1tf: Not affected",)"
              R"("itlb_multihit: KVM: Vulnerable","retbleed: Mitigation: IBRS; SMT vulnerable"])"),
         {"processor vulnerabilities are not mitigated: mds, itlb_multihit"}},
        {Item("cpu", "0", R"("microcode":["0x1","0x2"])"),
         {"processors run different microcode: 0x1, 0x2"}},
    };
    for (const auto& [items, expected] : cases) EXPECT_EQ(WarningsOf(items), expected) << items;
    EXPECT_EQ(
        WarningsOf("", R"("/sys/x: Permission denied","health of drives: only root may ask",)"
                       R"("/sys/y: Input/output error","drive:sda: health: no answer within 2 s")"),
        (std::vector<std::string>{"cannot be read: /sys/y: Input/output error",
                                  "cannot be read: drive:sda: health: no answer within 2 s"}));
}

}  // namespace

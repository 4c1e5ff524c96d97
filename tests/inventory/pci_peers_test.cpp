#include "inventory/host_inventory.h"
#include "inventory/sources.h"
#include "tests/inventory/peers.h"

TEST(PciPeersTest, EachFunctionThatLspciSeesIsThere) {
    NEED_PEER("lspci");
    KemdInventory inventory;
    ScanPci(inventory);
    const std::string text = PeerText("lspci -D -n");
    ASSERT_FALSE(text.empty());
}

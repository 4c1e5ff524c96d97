// The C++ interface and the table that C fills in are one: compared slot by slot.
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

#include "kemd/module_switch.h"

namespace {

// The offset in the virtual table, as a pointer to a virtual member function holds it: plus 1.
template <typename Member>
uintptr_t Offset(Member member) {
    static_assert(sizeof(member) == 2 * sizeof(uintptr_t));
    uintptr_t offset = 0;
    std::memcpy(&offset, &member, sizeof(offset));
    return offset - 1;
}

TEST(SwitchSlots, ClassAndTableAgree) {
    EXPECT_EQ(Offset(&IModuleSwitch::LoadModules), offsetof(ModuleSwitchTable, loadModules));
    EXPECT_EQ(Offset(&IModuleSwitch::UnloadModules), offsetof(ModuleSwitchTable, unloadModules));
    EXPECT_EQ(Offset(&IModuleSwitch::StartAllModules),
              offsetof(ModuleSwitchTable, startAllModules));
    EXPECT_EQ(Offset(&IModuleSwitch::StopAllModules), offsetof(ModuleSwitchTable, stopAllModules));
    EXPECT_EQ(Offset(&IModuleSwitch::NotifyModules), offsetof(ModuleSwitchTable, notifyModules));
}

}  // namespace

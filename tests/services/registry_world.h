// A fixture for tests of the registry: each test loads the process's tree from its own file and can
// read what is traced.
#pragma once

#include <string>

#include "kemd/registry.h"
#include "services/registry/file.h"
#include "services/registry/store.h"
#include "tests/traced_test.h"

inline const std::string kRegistryPath = "/etc/orvmon/registry";

class RegistryTest : public TracedTest {
  protected:
    void SetUp() override {
        TracedTest::SetUp();
        std::filesystem::remove_all("/etc/orvmon");
    }
    void TearDown() override {
        CRegistry::SaveTree();  // leaves no change to the next test
        TracedTest::TearDown();
    }

    // A file with `machine` below HKEY_LOCAL_MACHINE and the other root keys empty.
    static std::string FileWith(const std::string& machine) {
        return "[HKEY_CLASSES_ROOT]\n\n[HKEY_CURRENT_CONFIG]\n\n[HKEY_CURRENT_USER]\n\n"
               "[HKEY_LOCAL_MACHINE]\n" +
               machine + "\n[HKEY_USERS]\n\n\n";
    }
    static void Load(const std::string& machine) {
        WriteFile(kRegistryPath, FileWith(machine));
        CRegistry::SetupTree(true);
    }
    static std::string Text(CRegistryNode& node) {
        std::string text;
        WriteRegistry(node, [&text](std::string_view piece) {
            text += piece;
            return true;
        });
        return text;
    }
    // What the tree holds below HKEY_LOCAL_MACHINE.
    static std::string Machine() { return Text(*TheRegistryStore().RootKey(HKEY_LOCAL_MACHINE)); }
};

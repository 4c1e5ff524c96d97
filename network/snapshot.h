// All interfaces at one moment. Interfaces are shared between snapshots that do not differ in them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "network/interface.h"

struct KemdNetworkSnapshot {
    // Sorted by index.
    std::vector<std::shared_ptr<KemdNetworkInterface>> interfaces;
    std::vector<KemdNetworkRoute> routes;
    std::vector<std::string> notes;
    std::shared_ptr<NetworkFacts> facts;
    bool isConsistent = true;

    // Null when there is none.
    [[nodiscard]] KemdNetworkInterface* Find(uint64_t index) const;
    [[nodiscard]] std::shared_ptr<KemdNetworkInterface> Share(uint64_t index) const;
    [[nodiscard]] const KemdNetworkInterface* FindName(std::string_view name) const;
    // Takes the place of the one with the same index.
    void Put(std::shared_ptr<KemdNetworkInterface> interface);
    void Remove(uint64_t index);
    void NoteError(uint32_t part, const char* what, int error);
};

// The subcommands of kemdctl network.
#pragma once

#include <string_view>
#include <vector>

#include "network/view.h"

class ReportWriter;

// Which interfaces are wanted. In each list one must match; an empty one says nothing.
struct InterfaceFilter {
    std::vector<const char*> states;
    std::vector<const char*> kinds;  // patterns, as the next two
    std::vector<const char*> drivers;
    std::vector<const char*> names;  // also of alternative names

    [[nodiscard]] bool IsEmpty() const {
        return states.empty() && kinds.empty() && drivers.empty() && names.empty();
    }
    [[nodiscard]] bool Matches(InterfaceView interface) const;
};

// A snapshot; complains when there is none, and of what it could not have.
std::optional<NetworkView> TakeNetwork(uint32_t parts);
// For JSON: the same.
void StateNotes(ReportWriter& report, const NetworkView& view);

int ShowInterface(ReportWriter& report, const char* name);
int WatchInterfaces(ReportWriter& report, const InterfaceFilter& filter, bool asJson);

// What the subcommands of kemdctl network say about an interface.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "network/view.h"

class ReportWriter;

// Of all interfaces, by index.
using InterfaceNames = std::map<uint64_t, std::string>;
InterfaceNames NamesOf(const NetworkView& view);

// "off": switched off; "up" or "down": with or without a link; or, where it is one of these, the
// operational state: "dormant", "testing", "notpresent".
std::string StateOf(InterfaceView interface);
bool IsState(std::string_view word);
// For a terminal, as Cell has it.
const char* ColorOf(const std::string& state);

// The number of the slot that holds it, by the slot map; nothing when that is not known.
std::optional<unsigned> SlotOf(InterfaceView interface);

// The field as people read it, printable: with its unit, an index as the name of that interface.
// Nothing, and `error`, when it is absent.
std::optional<std::string> FieldText(InterfaceView interface, uint32_t field,
                                     const InterfaceNames& names, int* error = nullptr);
// The index in a field names an interface of this name space.
bool IsHere(InterfaceView interface, uint32_t field);

std::vector<std::string> AddressTexts(InterfaceView interface);
// "default via 192.0.2.254 metric 100 table 7 protocol dhcp linkdown"; "none" for null. `device`:
// the name of its interface, to be shown too.
std::string RouteText(const KemdNetworkRoute* route, const std::string& device = "");
// "unicast", "unreachable" ..., and "linkdown", "onlink" ...
std::string RouteTypeWord(const KemdNetworkRoute& route);
std::vector<std::string> RouteFlagWords(const KemdNetworkRoute& route);

// Texts with `between` between them; "none" for none.
std::string Joined(const std::vector<std::string>& texts, const char* between = " ");

// For JSON: the members of a line of the list.
void StateRow(ReportWriter& report, InterfaceView interface);

// Calls `each` with the number and the description of every field.
void ForEachField(const std::function<void(uint32_t, const KemdNetworkFieldInfo&)>& each);

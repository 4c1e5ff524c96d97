// kemd/network.h for C++: owners of its handles, and results as values. Header only, so that
// modules built with kemd use it as well. May throw std::bad_alloc.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kemd/network.h"

struct NetworkCloser {
    void operator()(KemdNetwork* network) const { KemdNetworkClose(network); }
    void operator()(KemdNetworkSnapshot* snapshot) const { KemdNetworkRelease(snapshot); }
    void operator()(KemdNetworkWatch* watch) const { KemdNetworkWatchClose(watch); }
};
using NetworkHandle = std::unique_ptr<KemdNetwork, NetworkCloser>;
using NetworkWatchHandle = std::unique_ptr<KemdNetworkWatch, NetworkCloser>;

// A text of any length; nothing, and `error`, when there is none.
template <typename Get>
std::optional<std::string> NetworkText(const Get& get, int* error = nullptr) {
    char usual[64];
    size_t size = sizeof usual;
    int result = get(usual, &size);
    std::string text(usual, result == 0 ? size - 1 : 0);
    while (result == ERANGE) {
        text.resize(size - 1);
        result = get(text.data(), &size);
    }
    if (error != nullptr) *error = result;
    if (result != 0) return std::nullopt;
    return text;
}

// One interface; valid as long as its snapshot.
class InterfaceView {
  public:
    InterfaceView(const KemdNetworkInterface* interface) : m_interface(interface) {}  // NOLINT
    explicit operator bool() const { return m_interface != nullptr; }
    [[nodiscard]] const KemdNetworkInterface* Get() const { return m_interface; }

    [[nodiscard]] std::optional<uint64_t> Number(uint32_t field) const {
        uint64_t value = 0;
        if (KemdNetworkNumber(m_interface, field, &value) != 0) return std::nullopt;
        return value;
    }
    // The field as a text; `error` says why there is none.
    [[nodiscard]] std::optional<std::string> Text(uint32_t field, int* error = nullptr) const {
        return NetworkText(
            [&](char* out, size_t* size) { return KemdNetworkText(m_interface, field, out, size); },
            error);
    }
    [[nodiscard]] std::string TextOr(uint32_t field, const char* fallback = "") const {
        return Text(field).value_or(fallback);
    }
    [[nodiscard]] std::vector<std::string> List(uint32_t list) const {
        std::vector<std::string> texts;
        for (;;) {
            auto text = NetworkText([&](char* out, size_t* size) {
                return KemdNetworkListAt(m_interface, list, texts.size(), out, size);
            });
            if (!text) return texts;
            texts.push_back(std::move(*text));
        }
    }
    [[nodiscard]] std::vector<KemdNetworkAddress> Addresses() const {
        return All<KemdNetworkAddress>(KemdNetworkAddressAt, m_interface);
    }
    [[nodiscard]] std::vector<KemdNetworkVirtualFunction> VirtualFunctions() const {
        return All<KemdNetworkVirtualFunction>(KemdNetworkVirtualFunctionAt, m_interface);
    }

    template <typename Record, typename Get, typename Owner>
    static std::vector<Record> All(const Get& get, const Owner* owner) {
        std::vector<Record> records;
        Record record{};
        for (;;) {
            record.size = sizeof record;
            if (get(owner, records.size(), &record) != 0) return records;
            records.push_back(record);
        }
    }

  private:
    const KemdNetworkInterface* m_interface;
};

class NetworkView {
  public:
    explicit NetworkView(KemdNetworkSnapshot* snapshot) : m_snapshot(snapshot) {}

    // A snapshot of the name space; nothing, and `error` with what happened, when there is none.
    static std::optional<NetworkView> Take(uint32_t parts, std::string& error,
                                           int nameSpace = KEMD_NETWORK_HERE);

    [[nodiscard]] const KemdNetworkSnapshot* Get() const { return m_snapshot.get(); }
    [[nodiscard]] std::vector<InterfaceView> Interfaces() const {
        std::vector<InterfaceView> all;
        for (;;) {
            const KemdNetworkInterface* interface = KemdNetworkAt(m_snapshot.get(), all.size());
            if (interface == nullptr) return all;
            all.emplace_back(interface);
        }
    }
    [[nodiscard]] InterfaceView ByName(const char* name) const {
        return KemdNetworkByName(m_snapshot.get(), name);
    }
    [[nodiscard]] InterfaceView ByIndex(uint64_t index) const {
        return KemdNetworkByIndex(m_snapshot.get(), index);
    }
    [[nodiscard]] std::vector<KemdNetworkRoute> Routes() const {
        return InterfaceView::All<KemdNetworkRoute>(KemdNetworkRouteAt, m_snapshot.get());
    }
    [[nodiscard]] std::vector<std::string> Notes() const {
        std::vector<std::string> notes;
        for (;;) {
            auto note = NetworkText([&](char* out, size_t* size) {
                return KemdNetworkNote(m_snapshot.get(), notes.size(), out, size);
            });
            if (!note) return notes;
            notes.push_back(std::move(*note));
        }
    }

  private:
    std::unique_ptr<KemdNetworkSnapshot, NetworkCloser> m_snapshot;
};

inline std::optional<NetworkView> NetworkView::Take(uint32_t parts, std::string& error,
                                                    int nameSpace) {
    KemdNetwork* opened = nullptr;
    int result = KemdNetworkOpen(&opened, nameSpace);
    const NetworkHandle network(opened);
    KemdNetworkSnapshot* snapshot = nullptr;
    if (result == 0) result = KemdNetworkTake(opened, parts, &snapshot);
    if (result == 0) return NetworkView(snapshot);
    error = NetworkText([&](char* out, size_t* size) {
                return KemdNetworkErrorText(opened, out, size);
            }).value_or("");
    if (error.empty()) error = "network name space: " + std::string(std::strerror(result));
    return std::nullopt;
}

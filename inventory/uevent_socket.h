// The kernel's messages about devices. One thread.
#pragma once

#include <array>
#include <optional>

#include "base/unique_fd.h"
#include "inventory/uevent.h"

class UeventSocket {
  public:
    // An errno number.
    [[nodiscard]] int Open();
    [[nodiscard]] int Descriptor() const { return m_fd.Get(); }
    // The next message; nothing for one that the kernel did not send. EAGAIN: there is none now;
    // ENOBUFS: some were lost; other errno numbers.
    [[nodiscard]] int Receive(std::optional<Uevent>& event);

  private:
    static constexpr size_t kMostBytes = 8192;  // the kernel's limit is 2048 and the path

    UniqueFd m_fd;
    std::array<char, kMostBytes> m_buffer{};
};

// The control socket as a file, and who may use it. Not thread-safe.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "base/unique_fd.h"

class ControlSocket {
  public:
    // Makes /run/kemd/control for root, and for the group of kemd.ini when there is one. Empty, or
    // why it could not be made. What is wrong with the group is traced.
    std::string Open();
    // Removes the file too.
    void Close();
    [[nodiscard]] int Get() const { return m_socket.Get(); }

    // What the peer of a connection may do.
    enum class Right { kNone, kRead, kChange };
    [[nodiscard]] Right RightOf(int connection) const;

  private:
    std::string Listen();

    UniqueFd m_socket;
    std::optional<gid_t> m_readers;
};

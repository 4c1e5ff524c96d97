// A client of the control socket.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "base/paths.h"
#include "base/unique_fd.h"

class Client {
  public:
    Client() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(static_cast<char*>(address.sun_path), kControlSocket);
        isConnected = connect(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address),
                              sizeof address) == 0;
    }
    void Send(const std::string& text) const {
        (void)!send(m_socket.Get(), text.data(), text.size(), MSG_NOSIGNAL);
    }
    // Without its line feed; empty when the connection ends, or nothing comes for a long while.
    std::string Line() {
        while (m_input.find('\n') == m_input.npos) {
            char bytes[4096];
            pollfd polled{m_socket.Get(), POLLIN, 0};
            if (poll(&polled, 1, 30'000) <= 0) return {};
            const ssize_t count = recv(m_socket.Get(), bytes, sizeof bytes, 0);
            if (count <= 0) return {};
            m_input.append(bytes, static_cast<size_t>(count));
        }
        const size_t end = m_input.find('\n');
        std::string line = m_input.substr(0, end);
        m_input.erase(0, end + 1);
        return line;
    }
    std::string Ask(const std::string& request) {
        Send(request + "\n");
        return Line();
    }

    bool isConnected = false;

  private:
    UniqueFd m_socket{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::string m_input;
};

inline std::string Ask(const std::string& request) {
    return Client().Ask(request);
}

// {"request":NAME,"module":MODULE}
inline std::string Ask(const std::string& name, const std::string& module) {
    return Ask("{\"request\":\"" + name + "\",\"module\":\"" + module + "\"}");
}

inline std::string RequestOf(const std::string& module, const std::string& text) {
    return "{\"request\":\"request\",\"module\":\"" + module + "\",\"text\":\"" + text + "\"}";
}

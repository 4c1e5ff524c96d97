#include "switch_library/control_client.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

#include "switch_library/control_request.h"

short ControlClient::Events() const {
    if (!m_output.empty()) return POLLOUT;
    return m_isWaiting || m_isAtEnd ? 0 : POLLIN;
}

void ControlClient::Move(short events) {
    if ((events & POLLIN) != 0 && !m_isAtEnd) Receive();
    if ((events & POLLOUT) != 0) Send();
    if ((events & (POLLERR | POLLNVAL)) != 0) m_isBroken = true;
    // Both directions are closed; what it sent before is still to be read.
    if ((events & POLLHUP) != 0 && (events & POLLIN) == 0) m_isBroken = true;
}

void ControlClient::Receive() {
    std::array<char, 16384> bytes{};
    const ssize_t count = recv(m_socket.Get(), bytes.data(), bytes.size(), 0);
    if (count > 0) {
        m_input.append(bytes.data(), static_cast<size_t>(count));
    } else if (count == 0) {
        m_isAtEnd = true;
    } else if (errno != EAGAIN && errno != EINTR) {
        m_isBroken = true;
    }
}

void ControlClient::Send() {
    const ssize_t count =
        send(m_socket.Get(), m_output.data(), m_output.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0) {
        m_isBroken = errno != EAGAIN && errno != EINTR;
        return;
    }
    m_output.erase(0, static_cast<size_t>(count));
    if (m_output.empty()) m_since = Clock::now();
}

std::optional<std::string> ControlClient::TakeRequest() {
    if (m_isWaiting || m_isBroken || !m_output.empty()) return std::nullopt;
    const size_t end = m_input.find('\n');
    if (end > kMostBytes && m_input.size() > kMostBytes) {
        AnswerAndClose(ControlError("the request is longer than 65536 bytes"));
        return std::nullopt;
    }
    if (end == m_input.npos) return std::nullopt;
    std::string line = m_input.substr(0, end);
    m_input.erase(0, end + 1);
    return line;
}

void ControlClient::Answer(std::string line) {
    m_isWaiting = false;
    healthUntil.reset();
    m_since = Clock::now();
    m_output = std::move(line);
    Send();
}

void ControlClient::AnswerAndClose(std::string line) {
    m_isAtEnd = true;
    m_input.clear();
    Answer(std::move(line));
}

bool ControlClient::IsOver() const {
    if (m_isBroken) return true;
    return m_isAtEnd && !m_isWaiting && m_output.empty() && m_input.find('\n') == m_input.npos;
}

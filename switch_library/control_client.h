// One connection to the control socket: lines in, lines out, and for how long it may keep what it
// holds. Used by the control thread alone; nothing here waits.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "base/unique_fd.h"

class ControlClient {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr size_t kMostBytes = size_t{64} << 10;  // of a request

    ControlClient(UniqueFd socket, uint64_t id, bool mayChange)
        : m_socket(std::move(socket)), m_id(id), m_mayChange(mayChange) {}

    [[nodiscard]] int Socket() const { return m_socket.Get(); }
    [[nodiscard]] uint64_t Id() const { return m_id; }
    [[nodiscard]] bool MayChange() const { return m_mayChange; }

    // What poll should look for.
    [[nodiscard]] short Events() const;
    // Takes what has come and sends what goes, as far as that is possible now.
    void Move(short events);
    // The next request, when the last one is answered and the answer is gone.
    std::optional<std::string> TakeRequest();
    // The client waits for a module, or for health, until Answer.
    void Wait() { m_isWaiting = true; }
    [[nodiscard]] bool IsWaiting() const { return m_isWaiting; }
    void Answer(std::string line);
    // The last one: nothing that comes after it is looked at.
    void AnswerAndClose(std::string line);

    [[nodiscard]] bool IsOver() const;
    // Since when it has sent no whole request, or has not taken a whole answer.
    [[nodiscard]] Clock::time_point Since() const { return m_since; }
    // It may ask for health until then.
    std::optional<Clock::time_point> healthUntil;
    std::string healthOf;  // a module's name; empty: of all

  private:
    void Receive();
    void Send();

    UniqueFd m_socket;
    uint64_t m_id;
    bool m_mayChange;
    bool m_isWaiting = false;
    bool m_isAtEnd = false;   // nothing more comes
    bool m_isBroken = false;  // nothing more goes
    std::string m_input;
    std::string m_output;
    Clock::time_point m_since = Clock::now();
};

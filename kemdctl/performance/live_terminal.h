// The terminal as `kemdctl performance live` uses it: the alternate screen, keys one by one. It is
// given back as it was on every way out: the destructor, a stop by the job control, and a signal of
// a fault. One object at a time.
#pragma once

#include <termios.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

class LiveTerminal {
  public:
    LiveTerminal() = default;
    LiveTerminal(const LiveTerminal&) = delete;
    LiveTerminal& operator=(const LiveTerminal&) = delete;
    ~LiveTerminal() { GiveBack(); }

    // False with errno.
    [[nodiscard]] bool Take();
    void GiveBack();

    struct Size {
        size_t columns = 80;
        size_t rows = 24;
    };
    [[nodiscard]] static Size CurrentSize();
    // At most `size.rows` lines, none wider than the screen. Writes the lines that differ from
    // those shown, with one call. False with errno.
    [[nodiscard]] bool Show(const std::vector<std::string>& lines);
    // The next frame is written whole.
    void Forget() { m_shown.clear(); }

  private:
    termios m_before = {};
    bool m_isTaken = false;
    std::vector<std::string> m_shown;
};

// Takes the keys apart that a read brought: a character, or "up", "down", "page up", "page down",
// "home", "end", "enter", "escape", "backspace". A sequence that is not known is no key.
[[nodiscard]] std::vector<std::string> ParseKeys(std::string_view bytes);

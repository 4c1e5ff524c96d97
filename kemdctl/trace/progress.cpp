#include "kemdctl/trace/progress.h"

#include <unistd.h>

#include <array>
#include <cstdio>

#include "kemdctl/ui/text.h"

namespace {

std::string Size(uint64_t bytes) {
    constexpr std::array<const char*, 4> kUnits = {"bytes", "KiB", "MiB", "GiB"};
    auto size = static_cast<double>(bytes);
    size_t unit = 0;
    for (; size >= 1024 && unit + 1 < kUnits.size(); ++unit) size /= 1024;
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", size, kUnits[unit]);
    return text.data();
}

}  // namespace

Progress::Progress(const std::string& path, uint64_t total, bool isQuiet)
    : m_path(Printable(path)),
      m_total(total),
      m_isQuiet(isQuiet),
      m_isShown(!isQuiet && isatty(STDERR_FILENO) == 1) {}

void Progress::Add(uint64_t bytes) {
    using Clock = std::chrono::steady_clock;
    m_done += bytes;
    if (!m_isShown || Clock::now() < m_next) return;
    m_next = Clock::now() + std::chrono::milliseconds(200);
    const std::string total = m_total > 0 ? " of " + Size(m_total) : "";
    std::fprintf(stderr, "\r%s: %s%s \x1b[K", m_path.c_str(), Size(m_done).c_str(), total.c_str());
}

void Progress::Finish(uint64_t size) {
    if (m_isShown) std::fputs("\r\x1b[K", stderr);
    if (m_isQuiet) return;
    std::fprintf(stderr, "kemdctl: wrote %s, %s\n", m_path.c_str(), Size(size).c_str());
}

#include "kemdctl/facts/small_file.h"

#include <algorithm>
#include <array>

#include "base/file_io.h"

std::optional<std::string> ReadSmallFile(const std::string& path, size_t limit) {
    const UniqueFd file = OpenRegularFile(path.c_str(), O_RDONLY);
    if (!file.IsOpen()) return std::nullopt;
    std::string text;
    std::array<char, 4096> piece;  // NOLINT(cppcoreguidelines-pro-type-member-init): read fills it
    while (text.size() < limit) {
        const size_t wanted = std::min(piece.size(), limit - text.size());
        const ssize_t count = read(file.Get(), piece.data(), wanted);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::nullopt;
        if (count == 0) break;
        text.append(piece.data(), static_cast<size_t>(count));
    }
    return text;
}

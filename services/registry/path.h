// Taking the path of a key apart.
#pragma once

#include <algorithm>
#include <string_view>

// The first backslash or, when there is none, the first slash.
inline size_t FindSeparator(std::string_view path) {
    const size_t position = path.find('\\');
    return position != path.npos ? position : path.find('/');
}

// The path's first component; takes it and its separator off.
inline std::string_view TakeComponent(std::string_view& path) {
    const size_t length = std::min(FindSeparator(path), path.size());
    const std::string_view component = path.substr(0, length);
    path.remove_prefix(std::min(length + 1, path.size()));
    return component;
}

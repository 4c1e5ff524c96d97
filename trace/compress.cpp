#include "trace/compress.h"

#include <cstdio>
#include <exception>
#include <string_view>

namespace {

bool IsPlain(std::string_view path) {
    constexpr std::string_view kPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+,:@%=";
    return path.find_first_not_of(kPlain) == path.npos && !path.starts_with('-');
}

std::string Quote(std::string_view path) {
    std::string quoted = path.starts_with('-') ? "'./" : "'";  // a name, not an option
    for (const char c : path) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

}  // namespace

std::string CompressCommand(const char* path) {
    return "gzip -f " + (IsPlain(path) ? path : Quote(path)) + " 2>/dev/null";
}

bool CompressFile(const char* path) try {
    FILE* gzip = popen(CompressCommand(path).c_str(), "re");
    if (gzip == nullptr) return false;
    (void)pclose(gzip);
    return true;
} catch (const std::exception&) {
    return false;
}

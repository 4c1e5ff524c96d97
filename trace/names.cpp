#include "trace/names.h"

#include <cctype>
#include <cstring>
#include <new>

void AppendUpperCase(char* buffer, size_t size, const char* text) {
    size_t length = strnlen(buffer, size);
    if (length + 1 >= size) return;
    buffer[length++] = '_';
    for (; *text != '\0' && length + 1 < size; ++text) {
        buffer[length++] = static_cast<char>(std::toupper(static_cast<unsigned char>(*text)));
    }
    buffer[length] = '\0';
}

void ToLowerCase(char* text) {
    for (; *text != '\0'; ++text) {
        *text = static_cast<char>(std::tolower(static_cast<unsigned char>(*text)));
    }
}

std::unique_ptr<char[]> CopyText(const char* text) {
    const size_t size = std::strlen(text) + 1;
    std::unique_ptr<char[]> copy(new (std::nothrow) char[size]);
    if (copy) std::memcpy(copy.get(), text, size);
    return copy;
}

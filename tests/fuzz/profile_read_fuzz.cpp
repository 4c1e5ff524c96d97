// Reads any bytes as a profile file and compares result and buffer, byte for byte, with a reader
// that goes by the rules one after the other and has nothing in common with the real one.
//
// An input: a digit for the size of the buffer, a digit for what is asked for, the section, a line
// feed, the key, a line feed, the file.
#include <cctype>
#include <cstring>
#include <vector>

#include "kemd/profile.h"
#include "tests/fuzz/fuzz.h"

namespace {

struct Question {
    const char* section;
    const char* key;
    const char* defaultText;
};

// The plain reader. Its buffer is the caller's, of at least 2 bytes.
class PlainReader {
  public:
    PlainReader(const Question& question, char* out, size_t size)
        : m_question(question), m_out(out), m_size(size) {}

    uint32_t Read(const char* path) {
        FILE* const file = std::fopen(path, "re");
        Require(file != nullptr, "fopen");
        char line[1024];
        m_out[0] = '\0';
        while (std::fgets(line, sizeof line, file) != nullptr) {
            if (m_position >= m_size - 2 || !TakeLine(line)) break;
        }
        std::fclose(file);
        return m_position != 0 ? EndList() : EndWithDefault();
    }

  private:
    // False ends the scan.
    bool TakeLine(char* line) {
        while (std::isspace(static_cast<unsigned char>(*line))) ++line;
        if (*line == '\0' || *line == ';') return true;
        if (char* const comment = std::strchr(line, ';')) *comment = '\0';
        TrimEnd(line);
        if (*line == '[') return TakeHeader(line + 1);
        char* const equals = std::strchr(line, '=');
        if (!m_inSection || equals == nullptr) return true;
        *equals = '\0';
        TrimEnd(line);
        if (m_question.key == nullptr) return AddName(line);
        return std::strcmp(line, m_question.key) != 0 || TakeValue(equals + 1);
    }

    bool TakeHeader(char* name) {
        if (m_inSection) return false;
        if (m_question.section == nullptr) {
            char* const end = std::strchr(name, ']');
            if (end == nullptr) return true;
            *end = '\0';
            return AddName(name);
        }
        const size_t length = std::strlen(m_question.section);
        m_inSection = std::strncmp(name, m_question.section, length) == 0 && name[length] == ']';
        return true;
    }

    bool AddName(const char* name) {
        m_position += Copy(name, m_size - 1 - m_position) + 1;
        return true;
    }

    bool TakeValue(const char* value) {
        while (std::isspace(static_cast<unsigned char>(*value))) ++value;
        m_position += Copy(value, m_size - m_position);
        return false;
    }

    // Copies the text and its NUL, cut to the limit.
    size_t Copy(const char* text, size_t limit) {
        size_t length = 0;
        for (; length < limit; ++length) {
            m_out[m_position + length] = text[length];
            if (text[length] == '\0') break;
        }
        m_out[m_size - 1] = '\0';
        return length;
    }

    uint32_t EndList() {
        if (m_position >= m_size) {
            m_position = m_size - 1;
            if (m_question.key == nullptr) {
                m_out[m_position] = '\0';
                m_position = m_size - 2;
            }
        }
        m_out[m_position] = '\0';
        return static_cast<uint32_t>(m_position);
    }

    uint32_t EndWithDefault() {
        if (m_question.key == nullptr || m_question.defaultText == nullptr) return 0;
        Copy(m_question.defaultText, m_size);
        return static_cast<uint32_t>(std::strlen(m_out));
    }

    static void TrimEnd(char* text) {
        size_t length = std::strlen(text);
        while (length > 0 && std::isspace(static_cast<unsigned char>(text[length - 1]))) --length;
        text[length] = '\0';
    }

    const Question& m_question;
    char* m_out;
    size_t m_size;
    size_t m_position = 0;
    bool m_inSection = false;
};

uint32_t ReadPlainly(const Question& question, char* out, uint32_t size, const char* path) {
    if (size == 0) return 0;
    out[0] = '\0';
    return size == 1 ? 0 : PlainReader(question, out, size).Read(path);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const MemoryFile file;
    constexpr uint32_t kSizes[] = {0, 1, 2, 3, 4, 5, 16, 64, 1024, 4096};
    if (size < 2) return 0;
    std::string_view rest(reinterpret_cast<const char*>(data) + 2, size - 2);
    const uint32_t bufferSize = kSizes[static_cast<uint8_t>(data[0] - '0') % std::size(kSizes)];
    const std::string section = TakeField(rest, '\n');
    const std::string key = TakeField(rest, '\n');
    const Question questions[] = {{section.c_str(), key.c_str(), "by default"},
                                  {section.c_str(), key.c_str(), nullptr},
                                  {section.c_str(), nullptr, "by default"},
                                  {nullptr, nullptr, "by default"}};
    const Question& question = questions[static_cast<uint8_t>(data[1] - '0') % 4];
    file.Fill(rest);

    // Of exactly the size, for the sanitizers; what is not stored must stay as it is.
    std::vector<char> expected(bufferSize, '~');
    std::vector<char> actual(bufferSize, '~');
    const uint32_t length = ReadPlainly(question, expected.data(), bufferSize, file.Path());
    Require(GetPrivateProfileString(question.section, question.key, question.defaultText,
                                    actual.data(), bufferSize, file.Path()) == length,
            "another result");
    Require(actual == expected, "another buffer");
    return 0;
}

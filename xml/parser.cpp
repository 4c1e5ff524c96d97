#include "xml/parser.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/file_io.h"
#include "xml/run.h"

KemdXmlParser::KemdXmlParser() = default;
KemdXmlParser::~KemdXmlParser() = default;

void KemdXmlParser::Reset() {
    m_run.reset();
}

int KemdXmlParser::SetLimit(uint32_t limit, uint64_t value) {
    if (limit >= m_limits.size() || m_run != nullptr) return EINVAL;
    m_limits[limit] = value;
    return 0;
}

int KemdXmlParser::SetEncoding(const char* name) {
    if (name == nullptr || m_run != nullptr) return EINVAL;
    Encoding wanted;
    const int error = FindEncoding(name, wanted);
    if (error == 0) m_wanted = wanted;
    return error;
}

void KemdXmlParser::Begin(uint64_t expected) {
    m_run = std::make_unique<XmlRun>(m_limits, m_wanted ? &*m_wanted : nullptr, m_error);
    m_run->Expect(expected);
}

int KemdXmlParser::Feed(std::string_view bytes) {
    if (m_run == nullptr) Begin(0);
    return m_run->Feed(bytes);
}

int KemdXmlParser::Finish(std::unique_ptr<KemdXmlDocument>& document) {
    int result = Feed({});
    if (result == 0) result = m_run->Finish(document);
    m_run.reset();
    return result;
}

int KemdXmlParser::Parse(std::string_view bytes, std::unique_ptr<KemdXmlDocument>& document) {
    if (m_run == nullptr) Begin(bytes.size());
    const int result = Feed(bytes);
    if (result == 0) return Finish(document);
    m_run.reset();
    return result;
}

int KemdXmlParser::ReadFile(const char* path, std::unique_ptr<KemdXmlDocument>& document) {
    m_run.reset();
    const UniqueFd file = OpenRegularFile(path, O_RDONLY);
    int error = file.IsOpen() ? 0 : errno;
    struct stat status {};
    if (error == 0 && fstat(file.Get(), &status) == 0) Begin(static_cast<uint64_t>(status.st_size));
    std::string piece(size_t{64} << 10, '\0');
    while (error == 0) {
        const ReadResult read = ReadFully(file.Get(), piece.data(), piece.size());
        error = read.error;
        if (error != 0) break;
        const int result = Feed(std::string_view(piece).substr(0, read.count));
        if (result != 0) m_run.reset();
        if (result != 0) return result;
        if (read.count < piece.size()) return Finish(document);
    }
    m_run.reset();
    m_error = {};
    m_error.cause = KEMD_XML_CAUSE_SYSTEM;
    const std::string text = std::string("cannot read ") + path + ": " + std::strerror(error);
    text.copy(m_error.text, sizeof m_error.text - 1);
    return error;
}

// Feeds arbitrary bytes to the reader of trace configuration files.
#include <string_view>
#include <vector>

#include "tests/fuzz/fuzz.h"
#include "trace/config_file.h"

namespace {

// Whether the part lies inside the whole.
bool Inside(std::string_view part, std::string_view whole) {
    return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

void ReadSection(std::string_view section) {
    for (const std::string_view key : {"FileDebugLevel", "RingBufferDirectory", "a", ""}) {
        for (const size_t limit : {0, 1, 64, 256}) {
            const auto value = FindConfigValue(section, key, limit);
            Require(!value || (Inside(*value, section) && value->size() <= limit), "value outside");
            Require(!value || value->find_first_of("\r\n") == value->npos, "value with a line end");
        }
        const int32_t number = FindConfigNumber(section, key, -77);
        Require(number == FindConfigNumber(section, key, number), "number depends on the fallback");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<char> copy(data, data + size);  // of exactly this size, for the sanitizers
    const std::string_view file(copy.data(), copy.size());
    const auto text = AcceptConfigText(file);
    Require(!text || (Inside(*text, file) && text->ends_with(']')), "text outside");
    for (const std::string_view source : {text.value_or(""), file}) {
        for (const std::string_view name : {"kemd", "GlobalDebugSettings", ""}) {
            const auto section = FindConfigSection(source, name);
            if (!section) continue;
            Require(Inside(*section, source), "section outside");
            Require(section->find('[') == section->npos, "section with a header");
            ReadSection(*section);
        }
    }
    ReadSection(file);
    return 0;
}

// Reads arbitrary bytes as a registry file. All entries are sorted and can be found. Written and
// read again the tree is the same, as long as no line is too long for the reader.
#include <algorithm>
#include <cstring>
#include <vector>

#include "services/registry/file_text.h"
#include "tests/fuzz/fuzz.h"

namespace {

void CheckTree(const RegistryKey& root) {
    std::vector<RegistryKey> open = {root};
    while (!open.empty()) {
        const RegistryKey key = std::move(open.back());
        open.pop_back();
        const LockedNode locked(*key);
        const RegistryEntry* last = nullptr;
        for (const RegistryEntry& entry : locked.Entries()) {
            Require(last == nullptr || last->Name() < entry.Name(), "names not sorted");
            Require(locked.Find(entry.Name()) == &entry, "an entry is not found");
            last = &entry;
            if (entry.IsSubkey()) open.push_back(entry.Node());
        }
    }
}

// Reads the text and writes the tree.
std::string ReadAndWrite(std::string_view text) {
    static const MemoryFile file;
    file.Fill(text);
    const RegistryKey root(new CRegistryNode);
    LineReader lines(file.Descriptor());
    const bool recognised = ParseRegistry(lines, *root) == 0;
    CheckTree(root);
    Require(recognised || LockedNode(*root).Entries().empty(), "entries without a recognised line");
    std::string written;
    const bool done = WriteRegistry(*root, [&](std::string_view piece) {
        written += piece;
        return true;
    });
    Require(done, "writing failed");
    return written;
}

// Binary data may be longer in the written text than in the input.
bool HasLongLine(std::string_view text) {
    size_t length = 0;
    for (const char c : text) {
        if (++length > LineReader::kMaxLine) return true;
        if (c == '\n') length = 0;
    }
    return false;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string first = ReadAndWrite({reinterpret_cast<const char*>(data), size});
    const std::string second = ReadAndWrite(first);
    Require(first == second || HasLongLine(first), "not the same when it is read again");
    return 0;
}

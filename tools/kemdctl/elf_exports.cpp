#include "tools/kemdctl/elf_exports.h"

#include <elf.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "services/base/regular_file.h"

namespace {

constexpr size_t kLargestTable = size_t{256} << 20;

// A file of which pieces are read: mapped, it could be cut under the reader.
class ElfFile {
  public:
    explicit ElfFile(const char* path) : m_file(OpenRegularFile(path, O_RDONLY)) {
        struct stat status {};
        if (m_file.IsOpen() && fstat(m_file.Get(), &status) == 0) {
            m_size = static_cast<uint64_t>(status.st_size);
        }
    }
    [[nodiscard]] bool IsOpen() const { return m_file.IsOpen(); }

    // False when the file does not have all of it.
    [[nodiscard]] bool Read(uint64_t offset, size_t size, void* to) const {
        if (offset > m_size || size > m_size - offset) return false;
        auto* bytes = static_cast<char*>(to);
        while (size > 0) {
            const ssize_t count = pread(m_file.Get(), bytes, size, static_cast<off_t>(offset));
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) return false;
            bytes += count;
            offset += static_cast<uint64_t>(count);
            size -= static_cast<size_t>(count);
        }
        return true;
    }
    // A table of records or, with bytes, a text.
    template <typename Record>
    [[nodiscard]] std::optional<std::vector<Record>> ReadTable(uint64_t offset,
                                                               uint64_t bytes) const {
        if (bytes > std::min<uint64_t>(kLargestTable, m_size)) return std::nullopt;
        std::vector<Record> table(bytes / sizeof(Record));
        if (!Read(offset, table.size() * sizeof(Record), table.data())) return std::nullopt;
        return table;
    }

  private:
    UniqueFd m_file;
    uint64_t m_size = 0;
};

bool IsOffered(const Elf64_Sym& symbol) {
    const auto binding = ELF64_ST_BIND(symbol.st_info);
    const auto visibility = ELF64_ST_VISIBILITY(symbol.st_other);
    return symbol.st_shndx != SHN_UNDEF && (binding == STB_GLOBAL || binding == STB_WEAK) &&
           (visibility == STV_DEFAULT || visibility == STV_PROTECTED);
}

bool ReadNames(const ElfFile& file, const Elf64_Ehdr& header, ElfExports& exports) {
    if (header.e_shentsize != sizeof(Elf64_Shdr)) return false;
    const auto sections =
        file.ReadTable<Elf64_Shdr>(header.e_shoff, uint64_t{header.e_shnum} * sizeof(Elf64_Shdr));
    if (!sections) return false;
    const auto dynamic =
        std::find_if(sections->begin(), sections->end(),
                     [](const Elf64_Shdr& section) { return section.sh_type == SHT_DYNSYM; });
    if (dynamic == sections->end() || dynamic->sh_link >= sections->size()) return false;
    const Elf64_Shdr& texts = (*sections)[dynamic->sh_link];
    const auto symbols = file.ReadTable<Elf64_Sym>(dynamic->sh_offset, dynamic->sh_size);
    const auto text = file.ReadTable<char>(texts.sh_offset, texts.sh_size);
    if (!symbols || !text) return false;
    for (const Elf64_Sym& symbol : *symbols) {
        if (!IsOffered(symbol) || symbol.st_name >= text->size()) continue;
        const char* const name = text->data() + symbol.st_name;
        exports.names.emplace(name, strnlen(name, text->size() - symbol.st_name));
    }
    return true;
}

}  // namespace

ElfExports ReadElfExports(const char* path) {
    ElfExports exports;
    const ElfFile file(path);
    if (!file.IsOpen()) {
        exports.error = std::strerror(errno);
        return exports;
    }
    Elf64_Ehdr header{};
    if (!file.Read(0, sizeof header, &header) ||
        std::memcmp(static_cast<const void*>(header.e_ident), ELFMAG, SELFMAG) != 0) {
        exports.error = "no ELF file";
    } else if (header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != ELFDATA2LSB ||
               header.e_machine != EM_X86_64) {
        exports.error = "not for x86-64";
        exports.isOtherMachine = true;
    } else if (header.e_type != ET_DYN) {
        exports.error = "no shared library";
    } else if (!ReadNames(file, header, exports)) {
        exports.error = "its table of symbols is broken or missing";
    }
    return exports;
}

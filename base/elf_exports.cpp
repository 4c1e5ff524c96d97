#include "base/elf_exports.h"

#include <elf.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include "base/library_file.h"

namespace {

// The symbols as the loader finds them, by way of the dynamic section: a library may have lost its
// sections.
class DynamicSymbols {
  public:
    explicit DynamicSymbols(const char* path) : m_file(path) {}

    // False when the tables are broken or missing.
    [[nodiscard]] bool ReadNames(ElfExports& exports);

  private:
    [[nodiscard]] bool ReadDynamic();
    // The value of an entry of the dynamic section; 0: there is none.
    [[nodiscard]] uint64_t Value(int64_t tag) const;
    // Where in the file an address lies.
    [[nodiscard]] std::optional<uint64_t> Offset(uint64_t address) const;
    [[nodiscard]] std::optional<uint64_t> Count() const;
    [[nodiscard]] std::optional<uint64_t> CountHashed(uint64_t table) const;

    BinaryFile m_file;
    std::vector<Elf64_Phdr> m_segments;
    std::vector<Elf64_Dyn> m_dynamic;
};

bool DynamicSymbols::ReadDynamic() {
    Elf64_Ehdr header{};
    if (!m_file.IsOpen() || !m_file.Read(0, sizeof header, &header)) return false;
    auto segments =
        m_file.ReadTable<Elf64_Phdr>(header.e_phoff, uint64_t{header.e_phnum} * sizeof(Elf64_Phdr));
    if (!segments) return false;
    m_segments = std::move(*segments);
    const auto found =
        std::find_if(m_segments.begin(), m_segments.end(),
                     [](const Elf64_Phdr& segment) { return segment.p_type == PT_DYNAMIC; });
    if (found == m_segments.end()) return false;
    auto dynamic = m_file.ReadTable<Elf64_Dyn>(found->p_offset, found->p_filesz);
    if (!dynamic) return false;
    m_dynamic = std::move(*dynamic);
    return true;
}

uint64_t DynamicSymbols::Value(int64_t tag) const {
    for (const Elf64_Dyn& entry : m_dynamic) {
        if (entry.d_tag == tag) return entry.d_un.d_val;
        if (entry.d_tag == DT_NULL) break;
    }
    return 0;
}

std::optional<uint64_t> DynamicSymbols::Offset(uint64_t address) const {
    for (const Elf64_Phdr& segment : m_segments) {
        if (segment.p_type != PT_LOAD || address < segment.p_vaddr) continue;
        const uint64_t within = address - segment.p_vaddr;
        if (within < segment.p_filesz) return segment.p_offset + within;
    }
    return std::nullopt;
}

// The file does not say how many symbols there are: the last chain of the hash table ends with the
// last symbol.
std::optional<uint64_t> DynamicSymbols::CountHashed(uint64_t table) const {
    uint32_t head[4];  // buckets, first symbol, words of the filter, shift
    if (!m_file.Read(table, sizeof head, head)) return std::nullopt;
    const uint64_t begin = table + sizeof head + uint64_t{head[2]} * sizeof(uint64_t);
    const uint64_t bytes = uint64_t{head[0]} * sizeof(uint32_t);
    const auto buckets = m_file.ReadTable<uint32_t>(begin, bytes);
    if (!buckets || buckets->empty()) return std::nullopt;
    uint64_t last = *std::max_element(buckets->begin(), buckets->end());
    if (last < head[1]) return head[1];
    for (uint32_t hash = 0; (hash & 1U) == 0; ++last) {
        const uint64_t offset = begin + bytes + (last - head[1]) * sizeof hash;
        if (!m_file.Read(offset, sizeof hash, &hash)) return std::nullopt;
    }
    return last;
}

std::optional<uint64_t> DynamicSymbols::Count() const {
    if (const auto table = Offset(Value(DT_GNU_HASH)); table && Value(DT_GNU_HASH) != 0) {
        return CountHashed(*table);
    }
    const auto table = Offset(Value(DT_HASH));
    uint32_t head[2];  // buckets, symbols
    if (!table || !m_file.Read(*table, sizeof head, head)) return std::nullopt;
    return head[1];
}

bool IsOffered(const Elf64_Sym& symbol) {
    const auto binding = ELF64_ST_BIND(symbol.st_info);
    const auto visibility = ELF64_ST_VISIBILITY(symbol.st_other);
    return symbol.st_shndx != SHN_UNDEF && (binding == STB_GLOBAL || binding == STB_WEAK) &&
           (visibility == STV_DEFAULT || visibility == STV_PROTECTED);
}

bool DynamicSymbols::ReadNames(ElfExports& exports) {
    if (!ReadDynamic()) return false;
    const auto symbolsAt = Offset(Value(DT_SYMTAB));
    const auto textAt = Offset(Value(DT_STRTAB));
    const auto count = Count();
    if (!symbolsAt || !textAt || !count) return false;
    const auto symbols = m_file.ReadTable<Elf64_Sym>(*symbolsAt, *count * sizeof(Elf64_Sym));
    const auto text = m_file.ReadTable<char>(*textAt, Value(DT_STRSZ));
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
    const LibraryFault fault = LookAtLibrary(path);
    exports.error = fault.text;
    exports.isOtherMachine = fault.isOtherMachine;
    if (exports.error.empty() && !DynamicSymbols(path).ReadNames(exports)) {
        exports.error = "its table of symbols is broken or missing";
    }
    return exports;
}

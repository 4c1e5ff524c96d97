#include "base/library_file.h"

#include <elf.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/file_io.h"

// Looked at by name first: opening a device may do something.
BinaryFile::BinaryFile(const char* path) {
    struct stat status {};
    if (stat(path, &status) != 0) return;
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return;
    }
    m_file = OpenRegularFile(path, O_RDONLY);
    if (!m_file.IsOpen() || fstat(m_file.Get(), &status) != 0) return;
    m_size = static_cast<uint64_t>(status.st_size);
}

bool BinaryFile::Read(uint64_t offset, size_t size, void* to) const {
    if (!Holds(offset, size)) return false;
    return ReadFullyAt(m_file.Get(), to, size, static_cast<off_t>(offset)).count == size;
}

static LibraryFault CutOff(const BinaryFile& file) {
    return {"cut off after " + std::to_string(file.Size()) + " bytes", false, true};
}

static LibraryFault LookAtHeader(const BinaryFile& file, Elf64_Ehdr& header) {
    if (!file.Read(0, sizeof header, &header) ||
        std::memcmp(static_cast<const void*>(header.e_ident), ELFMAG, SELFMAG) != 0) {
        return {"no ELF file"};
    }
    if (header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != ELFDATA2LSB ||
        header.e_machine != EM_X86_64) {
        return {"not for x86-64", true};
    }
    if (header.e_type != ET_DYN) return {"no shared library"};
    if (header.e_phentsize != sizeof(Elf64_Phdr)) return {"its program headers are broken"};
    if (!file.Holds(header.e_phoff, uint64_t{header.e_phnum} * sizeof(Elf64_Phdr))) {
        return CutOff(file);
    }
    return {};
}

LibraryFault LookAtLibrary(const char* path) {
    const BinaryFile file(path);
    if (!file.IsOpen()) {
        const int error = errno;
        struct stat status {};
        if (error != EINVAL) return {std::strerror(error)};
        return {"no regular file", false, stat(path, &status) == 0 && S_ISFIFO(status.st_mode)};
    }
    Elf64_Ehdr header{};
    LibraryFault fault = LookAtHeader(file, header);
    if (!fault.text.empty()) return fault;
    bool isLoaded = false;
    bool isDynamic = false;
    for (unsigned i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr segment{};
        if (!file.Read(header.e_phoff + i * sizeof segment, sizeof segment, &segment)) {
            return {"its program headers cannot be read"};
        }
        if (segment.p_type == PT_NULL || segment.p_filesz == 0) continue;
        if (!file.Holds(segment.p_offset, segment.p_filesz)) return CutOff(file);
        isLoaded = isLoaded || segment.p_type == PT_LOAD;
        isDynamic = isDynamic || segment.p_type == PT_DYNAMIC;
    }
    if (!isLoaded || !isDynamic) return {"its program headers name nothing to load"};
    return {};
}

std::string LoaderText(const char* text) {
    std::string all = text;
    if (all.find("undefined symbol: ") != std::string::npos) {
        all += "; neither kemd " + std::to_string(KEMD_INTERFACE_VERSION / 10000) + "." +
               std::to_string(KEMD_INTERFACE_VERSION / 100 % 100) +
               " nor a library of the module has it: update kemd, or link that library";
    }
    return all;
}

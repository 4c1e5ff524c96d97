// What reading, checking and indexing an SMBIOS table of 500 structures costs, beside a bare loop
// over the same two files and libsmbios.
#include <fcntl.h>
#include <smbios_c/obj/smbios.h>
#include <smbios_c/smbios.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "inventory/smbios.h"

namespace {

const std::string kDirectory = "/sys/firmware/dmi/tables";
const std::string kEntryFile = kDirectory + "/smbios_entry_point";
const std::string kTableFile = kDirectory + "/DMI";
constexpr size_t kStructures = 500;

// Of twelve types, with two strings each; the last one ends the table.
std::string MakeTable() {
    std::string table;
    for (size_t i = 0; i + 1 < kStructures; ++i) {
        const std::string data(static_cast<size_t>(10 + i % 20), '\1');
        const char type = static_cast<char>(i % 11);
        const auto handle = static_cast<char>(i);
        table += {type, static_cast<char>(4 + data.size()), handle, static_cast<char>(i >> 8)};
        table += data + "Manufacturer " + std::to_string(i) + '\0' + "Slot 1" + '\0' + '\0';
    }
    return table.append("\x7f\4\xfe\0\0\0", 6);
}

std::string MakeEntryPoint(size_t tableSize) {
    std::string entry(31, '\0');
    entry.replace(0, 8, std::string("_SM_\0\x1f\2\x08", 8));
    entry.replace(16, 5, "_DMI_");
    entry[22] = static_cast<char>(tableSize);
    entry[23] = static_cast<char>(tableSize >> 8);
    entry[26] = 1;
    entry[28] = static_cast<char>(kStructures & 0xFF);
    entry[29] = static_cast<char>(kStructures >> 8);
    const auto fix = [&entry](size_t start, size_t position) {
        for (size_t i = start; i < entry.size(); ++i) {
            if (i != position) entry[position] = static_cast<char>(entry[position] - entry[i]);
        }
    };
    fix(16, 21);
    fix(0, 4);
    return entry;
}

std::vector<uint8_t> ReadBare(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0) abort();
    std::vector<uint8_t> bytes(static_cast<size_t>(status.st_size));
    if (read(fd, bytes.data(), bytes.size()) != status.st_size) abort();
    close(fd);
    return bytes;
}

void IndexBare() {
    const auto entry = ReadBare(kEntryFile);
    const auto table = ReadBare(kTableFile);
    std::map<uint8_t, std::vector<const uint8_t*>> index;
    const uint8_t* next = table.data();
    const uint8_t* const end = next + table.size();
    size_t count = 0;
    while (next < end) {
        index[next[0]].push_back(next);
        next += next[1];
        do {
            next = static_cast<const uint8_t*>(std::memchr(next, 0, table.size())) + 1;
        } while (*next != 0);
        ++next;
        ++count;
    }
    if (count != kStructures || entry.size() != 31) abort();
}

void IndexWithInventory() {
    CSMBios smbios;
    if (!smbios.Connect() || smbios.StructureCount() != kStructures) abort();
}

void UseLibsmbios() {
    smbios_table* const table = smbios_table_factory(SMBIOS_GET_NEW);
    if (table == nullptr) abort();
    smbios_table_free(table);
}

bool LibsmbiosSeesTheTable() {
    smbios_table* const table = smbios_table_factory(SMBIOS_GET_NEW);
    size_t count = 0;
    const smbios_struct* each = nullptr;
    while (table != nullptr && (each = smbios_table_get_next_struct(table, each)) != nullptr) {
        ++count;
    }
    std::printf("libsmbios sees %zu structures\n", count);
    smbios_table_free(table);
    return count >= kStructures - 1;
}

}  // namespace

int main() {
    const std::string table = MakeTable();
    std::filesystem::create_directories(kDirectory);
    std::ofstream(kEntryFile) << MakeEntryPoint(table.size());
    std::ofstream(kTableFile) << table;
    std::vector<Contender> contenders = {
        Make("two files, a bare loop", [](int) { IndexBare(); }),
        Make("CSMBios::Connect", [](int) { IndexWithInventory(); }),
    };
    if (LibsmbiosSeesTheTable()) {
        contenders.push_back(Make("smbios_table_factory", [](int) { UseLibsmbios(); }));
    }
    MeasureRounds(contenders, 25, 400);
    std::printf("%zu bytes, %zu structures\n", table.size(), kStructures);
    Report("reading and indexing the SMBIOS tables", contenders);
    return 0;
}

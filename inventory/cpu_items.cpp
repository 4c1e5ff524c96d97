// Processors and NUMA nodes as the kernel sees them. Machines have hundreds of processors: all come
// from one file, and of sysfs is read what differs between models, not what each processor has.
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "base/file_io.h"
#include "base/line_reader.h"
#include "base/text.h"
#include "inventory/cpu_list.h"
#include "inventory/sys_directory.h"
#include "inventory/system_items.h"

namespace {

constexpr const char* kCpuInfo = "/proc/cpuinfo";

// One processor of /proc/cpuinfo.
struct Cpu {
    unsigned number = 0;
    std::string vendor, name, family, model, stepping, microcode;
    unsigned package = 0;
    unsigned core = 0;
    unsigned coresOfPackage = 0;
};

// Those that differ in nothing.
struct CpuGroup {
    Cpu first;
    const char* coreType = "";
    std::vector<unsigned> cpus;
    std::set<std::pair<unsigned, unsigned>> cores;  // with their packages
    std::map<unsigned, unsigned> coresOfPackage;
    std::set<std::string> microcodes;

    [[nodiscard]] uint64_t CoreCount(bool isOnlyGroup) const {
        // The kernel's own count, where all cores of the package are in this group: the numbers of
        // cores may repeat in packages of several dies.
        uint64_t count = 0;
        for (const auto& [package, number] : coresOfPackage) count += number;
        return isOnlyGroup && count != 0 ? count : cores.size();
    }
};

template <typename Number>
Number ToNumber(std::string_view text) {
    Number number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

void TakeField(Cpu& cpu, std::string_view key, std::string_view value) {
    struct TextField {
        std::string_view key;
        std::string Cpu::*text;
    };
    struct NumberField {
        std::string_view key;
        unsigned Cpu::*number;
    };
    static constexpr TextField kTexts[] = {
        {"vendor_id", &Cpu::vendor}, {"model name", &Cpu::name},   {"cpu family", &Cpu::family},
        {"model", &Cpu::model},      {"stepping", &Cpu::stepping}, {"microcode", &Cpu::microcode}};
    static constexpr NumberField kNumbers[] = {{"processor", &Cpu::number},
                                               {"physical id", &Cpu::package},
                                               {"core id", &Cpu::core},
                                               {"cpu cores", &Cpu::coresOfPackage}};
    for (const TextField& field : kTexts) {
        if (field.key == key) cpu.*field.text = value;
    }
    for (const NumberField& field : kNumbers) {
        if (field.key == key) cpu.*field.number = ToNumber<unsigned>(value);
    }
}

// The sets of flags that programs are compiled for, by their names.
const char* FeatureLevel(const std::set<std::string, std::less<>>& flags) {
    static constexpr std::array<std::string_view, 3> kLevels = {
        "cx16 lahf_lm popcnt pni sse4_1 sse4_2 ssse3",
        "avx avx2 bmi1 bmi2 f16c fma abm movbe xsave",
        "avx512f avx512bw avx512cd avx512dq avx512vl"};
    static constexpr std::array<const char*, 4> kNames = {"x86-64-v1", "x86-64-v2", "x86-64-v3",
                                                          "x86-64-v4"};
    size_t level = 0;
    for (const std::string_view needed : kLevels) {
        std::istringstream words{std::string(needed)};
        for (std::string word; words >> word;) {
            if (flags.count(word) == 0) return kNames.at(level);
        }
        ++level;
    }
    return kNames.at(level);
}

// All of /proc/cpuinfo, line by line.
class CpuInfo {
  public:
    explicit CpuInfo(KemdInventory& inventory) {
        static constexpr const char* kTypes[][2] = {
            {"/sys/devices/cpu_core/cpus", "performance"},
            {"/sys/devices/cpu_atom/cpus", "efficiency"},
            {"/sys/devices/cpu_lowpower/cpus", "low power"}};
        for (const auto& [path, word] : kTypes) {
            const auto text = ReadTextFile(path);
            if (text) m_types.emplace_back(CpuList(*text), word);
        }
        Read(inventory);
    }
    [[nodiscard]] const std::vector<CpuGroup>& Groups() const { return m_groups; }
    // Of the first processor.
    [[nodiscard]] const std::set<std::string, std::less<>>& Flags() const { return m_flags; }

  private:
    void Read(KemdInventory& inventory) {
        const UniqueFd file = OpenRegularFile(kCpuInfo, O_RDONLY);
        if (!file.IsOpen()) {
            inventory.NoteError(kCpuInfo, errno);
            return;
        }
        BasicLineReader<16384> reader(file.Get());
        bool isStart = true;  // long lines come in pieces
        std::string flags;
        Cpu cpu;
        bool hasCpu = false;
        for (std::string_view line; reader.Next(line);) {
            const size_t colon = isStart ? line.find(':') : line.npos;
            const std::string_view key = Trim(line.substr(0, colon));
            if (!isStart) {
                if (m_groups.empty() && m_inFlags) flags += line;
            } else if (colon != line.npos) {
                m_inFlags = key == "flags";
                if (m_inFlags && m_groups.empty()) flags = line.substr(colon + 1);
                TakeField(cpu, key, Trim(line.substr(colon + 1)));
                hasCpu = true;
            } else if (key.empty() && hasCpu) {
                Take(cpu);
                cpu = {};
                hasCpu = false;
            }
            isStart = line.ends_with('\n');
        }
        if (hasCpu) Take(cpu);
        if (reader.HasFailed()) inventory.NoteError(kCpuInfo, reader.Error());
        std::istringstream words(flags);
        for (std::string word; words >> word;) m_flags.insert(word);
    }

    void Take(const Cpu& cpu) {
        const char* coreType = "";
        for (const auto& [list, word] : m_types) {
            if (list.Has(cpu.number)) coreType = word;
        }
        auto group = std::find_if(m_groups.begin(), m_groups.end(), [&](const CpuGroup& each) {
            return each.coreType == coreType && each.first.name == cpu.name &&
                   each.first.vendor == cpu.vendor && each.first.family == cpu.family &&
                   each.first.model == cpu.model && each.first.stepping == cpu.stepping;
        });
        if (group == m_groups.end()) {
            m_groups.push_back({cpu, coreType, {}, {}, {}, {}});
            group = m_groups.end() - 1;
        }
        group->cpus.push_back(cpu.number);
        group->cores.emplace(cpu.package, cpu.core);
        group->coresOfPackage[cpu.package] = cpu.coresOfPackage;
        if (!cpu.microcode.empty()) group->microcodes.insert(cpu.microcode);
    }

    std::vector<std::pair<CpuList, const char*>> m_types;
    std::vector<CpuGroup> m_groups;
    std::set<std::string, std::less<>> m_flags;
    bool m_inFlags = false;
};

// How many caches of this kind the group has: each is shared by the processors of a list.
uint64_t CountCaches(const SysDirectory& cpus, const CpuGroup& group, uint64_t cores,
                     const std::string& index) {
    const auto listOf = [&](unsigned cpu) {
        const std::string name =
            "cpu" + std::to_string(cpu) + "/cache/" + index + "/shared_cpu_list";
        return CpuList(cpus.Text(name.c_str()).value_or(""));
    };
    std::vector<CpuList> lists;
    for (const unsigned cpu : group.cpus) {
        if (std::any_of(lists.begin(), lists.end(),
                        [cpu](const CpuList& list) { return list.Has(cpu); })) {
            continue;
        }
        lists.push_back(listOf(cpu));
        // Each core has its own: no need to ask all of them.
        if (lists.size() == 1 && lists.front().Count() * cores <= group.cpus.size()) return cores;
    }
    return lists.size();
}

// "32K", as sysfs has sizes of caches.
uint64_t CacheBytes(std::string_view text) {
    const auto number = ToNumber<uint64_t>(text);
    if (text.ends_with('M')) return number << 20;
    return text.ends_with('K') ? number << 10 : number;
}

void AddCaches(KemdInventoryItem& item, const SysDirectory& cpus, const CpuGroup& group,
               uint64_t cores) {
    struct CacheField {
        std::string_view level;
        std::string_view type;
        InventoryField size;
        InventoryField instances;
    };
    static constexpr CacheField kFields[] = {{"1", "Data", "l1d_cache", "l1d_instances"},
                                             {"1", "Instruction", "l1i_cache", "l1i_instances"},
                                             {"2", "Unified", "l2_cache", "l2_instances"},
                                             {"3", "Unified", "l3_cache", "l3_instances"}};
    const SysDirectory caches =
        cpus.Below(("cpu" + std::to_string(group.cpus.front()) + "/cache").c_str());
    for (const std::string& index : caches.Names()) {
        if (!index.starts_with("index")) continue;
        const std::string level = caches.Text((index + "/level").c_str()).value_or("");
        const std::string type = caches.Text((index + "/type").c_str()).value_or("");
        for (const CacheField& field : kFields) {
            if (field.level != level || field.type != type) continue;
            const uint64_t size = CacheBytes(caches.Text((index + "/size").c_str()).value_or(""));
            if (size == 0) continue;
            const uint64_t count = CountCaches(cpus, group, cores, index);
            item.AddNumber(field.size, size * count);
            item.AddNumber(field.instances, count);
        }
    }
}

// Favoured cores are faster than others of their group: the fastest counts.
void AddFrequencies(KemdInventoryItem& item, const SysDirectory& policies,
                    const std::vector<std::string>& names, const CpuGroup& group) {
    constexpr std::string_view kPolicy = "policy";
    uint64_t highest = 0;
    uint64_t lowest = 0;
    for (const std::string& name : names) {
        if (!name.starts_with(kPolicy)) continue;
        const auto cpu = ToNumber<unsigned>(std::string_view(name).substr(kPolicy.size()));
        if (!std::binary_search(group.cpus.begin(), group.cpus.end(), cpu)) continue;
        highest =
            std::max(highest, policies.Number((name + "/cpuinfo_max_freq").c_str()).value_or(0));
        if (lowest == 0) lowest = policies.Number((name + "/cpuinfo_min_freq").c_str()).value_or(0);
    }
    constexpr uint64_t kKhzPerMhz = 1000;
    if (lowest != 0) item.AddNumber("min_speed", lowest / kKhzPerMhz);
    if (highest != 0) item.AddNumber("max_speed", highest / kKhzPerMhz);
}

void AddNumber(KemdInventoryItem& item, InventoryField field, const std::string& text) {
    if (!text.empty()) item.AddNumber(field, ToNumber<uint64_t>(text));
}

void AddIdentity(KemdInventoryItem& item, const CpuGroup& group) {
    item.Add("vendor", group.first.vendor);
    item.Add("model", group.first.name);
    AddNumber(item, "cpu_family", group.first.family);
    AddNumber(item, "cpu_model", group.first.model);
    AddNumber(item, "stepping", group.first.stepping);
    for (const std::string& microcode : group.microcodes) item.Add("microcode", microcode);
    item.Add("core_type", group.coreType);
}

}  // namespace

void AddCpus(KemdInventory& inventory) {
    const CpuInfo info(inventory);
    const SysDirectory cpus(inventory, "/sys/devices/system/cpu");
    const SysDirectory policies = cpus.Below("cpufreq");
    const std::vector<std::string> policyNames = policies.Names();
    unsigned number = 0;
    for (const CpuGroup& group : info.Groups()) {
        const uint64_t cores = group.CoreCount(info.Groups().size() == 1);
        KemdInventoryItem& item =
            inventory.Add(ItemKind::kCpu, "cpu:" + std::to_string(number++), group.first.name);
        AddIdentity(item, group);
        item.AddNumber("sockets", group.coresOfPackage.size());
        item.AddNumber("cores", cores);
        item.AddNumber("threads", group.cpus.size());
        AddFrequencies(item, policies, policyNames, group);
        AddCaches(item, cpus, group, cores);
        item.Add("feature_level", FeatureLevel(info.Flags()));
        if (info.Flags().count("vmx") != 0) item.Add("virtualization", "VT-x");
        if (info.Flags().count("svm") != 0) item.Add("virtualization", "AMD-V");
    }
}

void AddNumaNodes(KemdInventory& inventory) {
    constexpr std::string_view kNode = "node";
    constexpr std::string_view kTotal = "MemTotal:";
    const SysDirectory nodes(inventory, "/sys/devices/system/node");
    for (const std::string& name : nodes.Names()) {
        const bool isNode = name.starts_with(kNode) && name.size() > kNode.size() &&
                            name.find_first_not_of("0123456789", kNode.size()) == name.npos;
        if (!isNode) continue;
        const SysDirectory node = nodes.Below(name.c_str());
        KemdInventoryItem& item =
            inventory.Add(ItemKind::kNumaNode, "numa_node:" + name.substr(kNode.size()), name);
        item.Add("cpus", node.Text("cpulist").value_or(""));
        const std::string memory = node.Text("meminfo").value_or("");
        const size_t total = memory.find(kTotal);
        if (total != memory.npos) {
            const std::string_view text =
                TrimStart(std::string_view(memory).substr(total + kTotal.size()));
            item.AddNumber("memory", ToNumber<uint64_t>(text) << 10);
        }
        std::istringstream distances(node.Text("distance").value_or(""));
        for (uint64_t distance = 0; distances >> distance;) item.AddNumber("distances", distance);
    }
}

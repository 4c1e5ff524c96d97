// Whether this is a virtual machine or a container, and of which kind.
#include <cpuid.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "base/file_io.h"
#include "base/text.h"
#include "inventory/system_items.h"

namespace {

struct Name {
    std::string_view text;
    const char* word;
};

struct Signature {
    std::string_view text;
    const char* word;
    const char* vendor;
};
constexpr Signature kSignatures[] = {
    {"KVMKVMKVM", "kvm", "KVM"},
    {"Linux KVM Hv", "kvm", "KVM"},
    {"XenVMMXenVMM", "xen", "Xen"},
    {"TCGTCGTCGTCG", "qemu", "QEMU"},
    {"VMwareVMware", "vmware", "VMware"},
    {"Microsoft Hv", "microsoft", "Microsoft"},
    {"bhyve bhyve ", "bhyve", "bhyve"},
    {"QNXQVMBSQG", "qnx", "QNX"},
    {"ACRNACRNACRN", "acrn", "ACRN"},
    {"SRESRESRESRE", "sre", "SRE"},
    {" lrpepyh  vr", "parallels", "Parallels"},
};

// How texts of the firmware begin.
constexpr Name kFirmwareNames[] = {
    {"KVM", "kvm"},
    {"OpenStack", "kvm"},
    {"KubeVirt", "kvm"},
    {"Amazon EC2", "amazon"},
    {"QEMU", "qemu"},
    {"VMware", "vmware"},
    {"VMW", "vmware"},
    {"innotek GmbH", "oracle"},
    {"VirtualBox", "oracle"},
    {"Oracle Corporation", "oracle"},
    {"Xen", "xen"},
    {"Bochs", "bochs"},
    {"Parallels", "parallels"},
    {"BHYVE", "bhyve"},
    {"Hyper-V", "microsoft"},
    {"Apple Virtualization", "apple"},
    {"Google Compute Engine", "google"},
};

const KemdInventoryItem* First(const KemdInventory& inventory, ItemKind kind) {
    const auto found =
        std::find_if(inventory.items.begin(), inventory.items.end(),
                     [kind](const KemdInventoryItem& item) { return item.kind == kind; });
    return found == inventory.items.end() ? nullptr : &*found;
}

bool FirmwareSaysVirtual(const KemdInventory& inventory) {
    const KemdInventoryItem* const firmware = First(inventory, ItemKind::kFirmware);
    return firmware != nullptr &&
           std::any_of(firmware->values.begin(), firmware->values.end(), [](const auto& value) {
               return value.text == "System is a virtual machine";
           });
}

std::string_view FirmwareWord(const KemdInventory& inventory) {
    struct Source {
        ItemKind kind;
        InventoryField field;
    };
    static constexpr Source kSources[] = {{ItemKind::kSystem, "model"},
                                          {ItemKind::kSystem, "vendor"},
                                          {ItemKind::kBoard, "vendor"},
                                          {ItemKind::kFirmware, "vendor"},
                                          {ItemKind::kSystem, "version"}};
    for (const Source& source : kSources) {
        const KemdInventoryItem* const item = First(inventory, source.kind);
        if (item == nullptr) continue;
        for (const Name& name : kFirmwareNames) {
            if (item->Text(source.field).starts_with(name.text)) return name.word;
        }
    }
    return {};
}

// The same texts stand in machines that are not virtual.
bool IsAmazonMetal(const KemdInventory& inventory) {
    const KemdInventoryItem* const firmware = First(inventory, ItemKind::kFirmware);
    const bool knowsBits = firmware != nullptr && firmware->Find("characteristics") != nullptr;
    if (knowsBits) return !FirmwareSaysVirtual(inventory);
    const KemdInventoryItem* const system = First(inventory, ItemKind::kSystem);
    return system != nullptr && system->Text("model").ends_with(".metal");
}

bool Exists(const char* path) {
    return access(path, F_OK) == 0;
}

// The value of container= in the environment of process 1, which only root may read.
std::string ContainerVariable() {
    constexpr std::string_view kVariable = "container=";
    const std::string text = ReadTextFile("/proc/1/environ").value_or("");
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::string_view entry = CutAtNul(rest);
        if (entry.starts_with(kVariable)) return std::string(entry.substr(kVariable.size()));
        rest.remove_prefix(std::min(rest.size(), entry.size() + 1));
    }
    return {};
}

std::string ContainerByGroup() {
    static constexpr Name kGroups[] = {{"/docker/", "docker"},
                                       {"/libpod", "podman"},
                                       {"/kubepods", "container-other"},
                                       {"/lxc/", "lxc"}};
    const std::string groups = ReadTextFile("/proc/1/cgroup").value_or("");
    for (const Name& group : kGroups) {
        if (groups.find(group.text) != groups.npos) return group.word;
    }
    return {};
}

std::string ContainerByFile() {
    if (Exists("/run/.containerenv")) return "podman";
    if (Exists("/.dockerenv")) return "docker";
    return ContainerByGroup();
}

}  // namespace

std::string HypervisorSignature() {
    constexpr unsigned kHypervisor = 1U << 31;
    constexpr unsigned kHypervisorLeaf = 0x40000000;
    unsigned eax = 0;
    std::array<unsigned, 3> text{};
    unsigned ecx = 0;
    if (__get_cpuid(1, &eax, text.data(), &ecx, &text[1]) == 0 || (ecx & kHypervisor) == 0) {
        return {};
    }
    __cpuid(kHypervisorLeaf, eax, text[0], text[1], text[2]);
    std::string signature(sizeof text, '\0');
    std::memcpy(signature.data(), text.data(), sizeof text);
    return signature;
}

std::string HypervisorName(std::string_view signature) {
    for (const Signature& each : kSignatures) {
        if (CutAtNul(signature) == each.text) return each.vendor;
    }
    return std::string(CutAtNul(signature));
}

std::string DetectMachine(const KemdInventory& inventory, std::string_view hypervisorSignature) {
    const std::string_view word = FirmwareWord(inventory);
    if (word == "amazon" && IsAmazonMetal(inventory)) return "none";
    // These show the signature of another one.
    for (const std::string_view first : {"oracle", "xen", "amazon", "parallels", "google"}) {
        if (word == first) return std::string(word);
    }
    if (Exists("/proc/xen")) {
        const std::string capabilities = ReadTextFile("/proc/xen/capabilities").value_or("");
        return capabilities.find("control_d") == capabilities.npos ? "xen" : "none";
    }
    for (const Signature& each : kSignatures) {
        if (CutAtNul(hypervisorSignature) == each.text) return each.word;
    }
    if (!word.empty()) return std::string(word);
    const std::string type = ReadTextFile("/sys/hypervisor/type").value_or("");
    if (Trim(type) == "xen") return "xen";
    const bool isOther =
        !hypervisorSignature.empty() || !type.empty() || FirmwareSaysVirtual(inventory);
    return isOther ? "vm-other" : "none";
}

std::string DetectContainer() {
    static constexpr std::string_view kKnown[] = {"systemd-nspawn", "lxc-libvirt", "lxc", "openvz",
                                                  "docker",         "podman",      "rkt", "wsl",
                                                  "proot",          "pouch"};
    if (Exists("/proc/vz") && !Exists("/proc/bc")) return "openvz";
    const std::string release = ReadTextFile("/proc/sys/kernel/osrelease").value_or("");
    if (release.find("Microsoft") != release.npos || release.find("WSL") != release.npos) {
        return "wsl";
    }
    std::string name(Trim(ReadTextFile("/run/systemd/container").value_or("")));
    if (name.empty()) name = ContainerVariable();
    if (name.empty() || name == "oci") {
        std::string byFile = ContainerByFile();
        if (!byFile.empty() || name.empty()) return byFile;
    }
    const bool isKnown = std::find(std::begin(kKnown), std::end(kKnown), name) != std::end(kKnown);
    return isKnown ? name : "container-other";
}

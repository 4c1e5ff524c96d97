// kemdctl inventory: the hardware and volumes of the host, and what changed about them.
#include <algorithm>
#include <array>

#include "inventory/sections.h"
#include "inventory/store.h"
#include "kemdctl/commands.h"
#include "kemdctl/inventory/firmware.h"
#include "kemdctl/inventory/items.h"
#include "kemdctl/inventory/mask.h"
#include "kemdctl/inventory/output.h"
#include "kemdctl/inventory/saved.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr const char* kHelp =
    R"(usage: kemdctl inventory [SECTION ...] [OPTION ...]
       kemdctl inventory save FILE [SECTION ...]
       kemdctl inventory diff A [B] [--ignore WHAT] ... [--volatile]
       kemdctl inventory --tables | --slot BB:DD | --dump FILE
       kemdctl inventory --from-dump FILE [--slot BB:DD]

Shows the hardware and volumes of this host: without words a page, otherwise the
sections system, memory, slots, pci, usb, drives, network and volumes.

  save FILE          keeps the inventory in a file; -: standard output
  diff A [B]         what changed from the kept inventory A to B, or to this
                     machine: a line for each change; status 1: there are some
  --ignore WHAT      of diff: not this FIELD, KIND, KIND.FIELD or pattern of
                     ids, as 'mount:*'; may be repeated
  --volatile         of diff: also what changes by itself, as temperatures
  --long             all fields of each item
  --tree             what sits in what: PCI, USB, drives, partitions, volumes
  --json, --xml      as JSON, as XML
  --mask             serial numbers, MAC addresses, UUIDs and the like become
                     masked-1, masked-2 ...
  --no-health        does not ask drives for their health; root does otherwise
  --tables           the firmware's SMBIOS tables: where they come from,
                     revision, number of structures of each type, and which
                     slot holds which PCI device
  --slot BB:DD       only the number of the slot that holds the device with this
                     bus and device number, hexadecimal; status 1: not known
  --from-dump FILE   looks at tables in a file, as --dump or dmidecode wrote it
  --dump FILE        writes the tables into a file that dmidecode reads as well;
                     -: to standard output

The slot map comes from the PCI IRQ routing table, with types from SMBIOS, or
else from SMBIOS; for a dump only from SMBIOS. An on-board device has the number
0 in the routing table, and in SMBIOS its instance among devices of its kind.
What only root can read is absent for others, and standard error says so.
Exit status: 0 yes or done, 1 differences, no tables, or the slot is not
known, 2 error.
)";

constexpr uint32_t kAllSections = KEMD_INVENTORY_ALL & ~KEMD_INVENTORY_HEALTH;

int UsageError(const std::string& what) {
    Complain("%s; see kemdctl inventory --help", what.c_str());
    return kError;
}

bool IsSubcommand(std::string_view word) {
    return word == "save" || word == "diff";
}

// False, after a complaint, when a word is no section. None: all of them.
bool TakeSections(CommandLine& line, uint32_t& sections) {
    sections = line.words.empty() ? kAllSections : 0;
    for (const char* word : line.words) {
        const uint32_t section = SectionByName(word);
        if (section == 0) {
            (void)UsageError(IsSubcommand(word)
                                 ? std::string(word) + " comes before all other words"
                                 : "there is no section " + Printable(word));
            return false;
        }
        sections |= section;
    }
    line.words.clear();
    return true;
}

// Complains when it is the name of a section, as somebody has forgotten the file.
bool IsFile(const char* word) {
    if (SectionByName(word) == 0) return true;
    (void)UsageError(std::string(word) + " is a section; a file of that name is ./" + word);
    return false;
}

KemdInventory Take(const CommandLine& line, uint32_t sections) {
    KemdInventory inventory = TakeInventory(sections, !line.Has("--no-health"));
    if (line.Has("--mask")) MaskInventory(inventory);
    ComplainOfNotes(inventory.notes, "");
    return inventory;
}

int RunSave(CommandLine& line) {
    if (line.words.empty()) return UsageError("save takes the name of a file");
    const char* const path = line.words[0];
    (void)line.TakeCommand();
    uint32_t sections = 0;
    if (!IsFile(path) || !TakeSections(line, sections)) return kError;
    return SaveTo(path, Take(line, sections));
}

int RunDiff(const CommandLine& line, ReportWriter& report,
            const std::vector<const char*>& ignored) {
    const size_t count = line.words.size();
    if (count == 0 || count > 2) return UsageError("diff takes the names of one file or two");
    if (!std::all_of(line.words.begin(), line.words.end(), IsFile)) return kError;
    const char* const after = count == 2 ? line.words[1] : nullptr;
    DiffOptions options = {
        line.words[0], after, {}, line.Has("--volatile"), !line.Has("--no-health")};
    for (const char* const what : ignored) {
        if (what == nullptr) return UsageError("--ignore: a value is missing");
        if (options.ignored.Add(what)) continue;
        return UsageError("--ignore: there is no field and no kind " + Printable(what));
    }
    return ShowDifferences(report, options);
}

int ShowItems(CommandLine& line, ReportWriter& report) {
    constexpr std::array<const char*, 4> kForms = {"--long", "--tree", "--json", "--xml"};
    const auto forms = std::count_if(kForms.begin(), kForms.end(),
                                     [&line](const char* form) { return line.Has(form); });
    if (forms > 1) return UsageError("--long, --tree, --json and --xml exclude each other");
    const bool isWhole = line.words.empty();
    uint32_t sections = 0;
    if (!TakeSections(line, sections)) return kError;
    const KemdInventory inventory = Take(line, sections);
    if (line.Has("--xml")) return WriteXml(inventory);
    if (line.Has("--tree")) {
        ShowTree(report, inventory);
    } else if (line.Has("--json") && isWhole) {
        StateTables(report);
        report.Members(InventoryJson(inventory));
    } else if (line.Has("--json")) {
        report.SetJson(false);
        Write(InventoryJson(inventory));
    } else if (isWhole && !line.Has("--long")) {
        ShowPage(report, inventory);
    } else {
        ShowSections(report, inventory, sections, line.Has("--long"));
    }
    return kYes;
}

int ShowFirmware(const CommandLine& line, ReportWriter& report, const FirmwareOptions& options) {
    if (!line.words.empty()) return UsageError("sections do not go with the firmware's tables");
    for (const auto& [option, value] : {std::pair("--slot", options.slot),
                                        {"--from-dump", options.source},
                                        {"--dump", options.target}}) {
        if (line.Has(option) && value == nullptr) {
            return UsageError(std::string(option) + ": a value is missing");
        }
    }
    if (options.slot != nullptr && options.target != nullptr) {
        return UsageError("--slot and --dump do not go together");
    }
    if (options.target != nullptr && IsStandardOutput(options.target) && line.Has("--json")) {
        Complain("--json and --dump - both write to standard output; name a file for --dump");
        return kError;
    }
    return RunFirmware(report, options);
}

// What each form of the command has.
constexpr std::array<std::string_view, 5> kFirmware = {"--slot", "--from-dump", "--dump",
                                                       "--tables", "--json"};
constexpr std::array<std::string_view, 6> kItems = {"--json", "--xml",  "--tree",
                                                    "--long", "--mask", "--no-health"};
constexpr std::array<std::string_view, 2> kSave = {"--mask", "--no-health"};
constexpr std::array<std::string_view, 4> kDiff = {"--json", "--ignore", "--volatile",
                                                   "--no-health"};

struct Form {
    const char* name;
    std::span<const std::string_view> options;
};

// False, after a complaint, when an option belongs to another form, or to none.
bool HasOnlyOptionsOf(const CommandLine& line, const Form& form) {
    const std::span<const std::string_view> forms[] = {kFirmware, kItems, kSave, kDiff};
    for (const auto& option : line.options) {
        const auto has = [&option](std::span<const std::string_view> names) {
            return std::find(names.begin(), names.end(), option.name) != names.end();
        };
        if (has(form.options)) continue;
        const bool isKnown = std::any_of(std::begin(forms), std::end(forms), has);
        (void)UsageError(isKnown ? std::string(option.name) + " does not go with " + form.name
                                 : "unknown option " + Printable(option.name));
        return false;
    }
    return line.HasOnly(form.options);
}

}  // namespace

int RunInventory(CommandLine& line, ReportWriter& report) {
    if (line.Has("--help")) {
        report.SetJson(false);
        Write(kHelp);
        return kYes;
    }
    const FirmwareOptions firmware = {line.TakeValue("--slot"), line.TakeValue("--from-dump"),
                                      line.TakeValue("--dump")};
    const std::vector<const char*> ignored = line.TakeValues("--ignore");
    const bool isFirmware = std::any_of(kFirmware.begin(), kFirmware.end() - 1,
                                        [&line](auto option) { return line.Has(option); });
    const std::string_view name = line.words.empty() ? "" : line.words[0];
    const bool isItems = !isFirmware && !IsSubcommand(name);
    Form form = {"diff", kDiff};
    if (name == "save") form = {"save", kSave};
    if (isItems) form = {line.words.empty() ? "the page" : "sections", kItems};
    if (isFirmware) form = {"the firmware's tables", kFirmware};
    if (!HasOnlyOptionsOf(line, form)) return kError;
    if (isFirmware) return ShowFirmware(line, report, firmware);
    if (isItems) return ShowItems(line, report);
    (void)line.TakeCommand();
    return name == "save" ? RunSave(line) : RunDiff(line, report, ignored);
}

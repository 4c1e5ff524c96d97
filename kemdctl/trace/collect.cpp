#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "base/file_io.h"
#include "base/paths.h"
#include "base/version.h"
#include "kemdctl/trace/collect_archive.h"
#include "kemdctl/trace/collect_mask.h"
#include "kemdctl/trace/header_report.h"
#include "kemdctl/trace/options.h"
#include "kemdctl/trace/progress.h"
#include "kemdctl/trace/reports.h"
#include "kemdctl/ui/command.h"
#include "kemdctl/ui/output_file.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/trace_source.h"

namespace {

constexpr const char* kFolder = "kemd-trace/";

struct TraceMember {
    std::string name;  // in the archive
    TraceFile file;
    uint64_t size = 0;
    std::string header;
};

struct TextMember {
    std::string name;
    std::string text;
};

// A copy of a file with its secrets masked, of the same length and line by line. A line of more
// than 16 MiB is split.
bool CopyMasked(const TraceFile& file, uint64_t size, SecretMask& mask, const TarGzip::Put& put) {
    constexpr size_t kBlock = size_t{1} << 20, kLongest = size_t{16} << 20;
    constexpr uint64_t kPage = 4096;
    mask.Begin();
    std::string rest, out;
    for (uint64_t at = 0; at < size;) {
        const std::string block = file.Read(at, std::min<uint64_t>(kBlock, size - at));
        rest += block;
        at += block.size();
        if (block.empty() && !file.FailedAt(at)) break;
        if (file.FailedAt(at)) {
            // What cannot be read is zero bytes, so that the rest stays in its place.
            const uint64_t next = std::min(at / kPage * kPage + kPage, size);
            rest.append(next - at, '\0');
            at = next;
        }
        size_t begin = 0;
        for (size_t end = rest.find('\n'); end != rest.npos; end = rest.find('\n', begin)) {
            std::string line = rest.substr(begin, end - begin);
            mask.Mask(line);
            out += line + '\n';
            begin = end + 1;
        }
        rest.erase(0, begin);
        if (rest.size() > kLongest) {
            mask.Mask(rest);
            out += std::exchange(rest, {});
        }
        if (!put(out)) return false;
        out.clear();
    }
    mask.Mask(rest);
    return put(rest);
}

// The values of a header as they stand in its lines.
void MaskHeader(std::vector<HeaderEntry>& entries, SecretMask& mask) {
    for (HeaderEntry& entry : entries) {
        const bool isArgument = entry.name.starts_with("argv[");
        std::string line = entry.name + (isArgument ? " = " : "=") + entry.value;
        std::replace(line.begin(), line.end(), '\n', ' ');
        mask.Mask(line);
        entry.value = line.substr(line.size() - entry.value.size());
    }
}

std::string UniqueName(const std::string& path, bool isCompressed,
                       const std::vector<TraceMember>& members) {
    constexpr size_t kLongest = 60;
    std::string name = path.substr(path.rfind('/') + 1);
    if (isCompressed && name.ends_with(".gz")) name.erase(name.size() - 3);
    name = name.substr(0, kLongest);
    const auto isTaken = [&members](const std::string& wanted) {
        return std::any_of(members.begin(), members.end(),
                           [&wanted](const TraceMember& each) { return each.name == wanted; });
    };
    std::string unique = name;
    for (int i = 2; isTaken(unique); ++i) unique = name + "-" + std::to_string(i);
    return unique;
}

class Collection {
  public:
    // False: it is left out, which is reported.
    bool AddTrace(const std::string& path);
    void AddTexts();
    bool WriteTo(const char* archive, bool isQuiet);
    // Whether all of the traces could be read; what could not is reported.
    [[nodiscard]] bool IsWhole() const;

  private:
    bool Put(TarGzip& tar);
    bool CopyTrace(const TraceMember& trace, const TarGzip::Put& put);

    std::vector<TraceMember> m_traces;
    std::vector<TextMember> m_texts;
    SecretMask m_mask;
    std::optional<Progress> m_progress;
};

bool Collection::AddTrace(const std::string& path) {
    TraceSource source(path, 0);
    const bool isOpen = source.Open() && source.Facts().kind != FileKind::kForeignFile;
    if (!source.Problem().empty()) {
        Complain("%s: %s%s", Printable(path).c_str(), source.Problem().c_str(),
                 isOpen ? "" : ", left out");
    }
    if (!isOpen) return false;
    TraceMember member;
    member.name = UniqueName(path, source.Facts().isCompressed, m_traces);
    std::vector<HeaderEntry> entries = ReadHeader(source);
    m_mask.Begin();
    MaskHeader(entries, m_mask);
    member.header = FormatHeader(entries);
    // Opened again: the source keeps its own.
    (void)member.file.Open(path);
    member.size = std::min<uint64_t>(member.file.Size(), TraceFile::kLimit);
    m_traces.push_back(std::move(member));
    return true;
}

void Collection::AddTexts() {
    const auto add = [this](const char* name, std::string text) {
        if (!text.empty()) m_texts.push_back({name, std::move(text)});
    };
    constexpr const char* kSelf = "/proc/self/exe";
    add("version.txt", std::string(kVersion.programName) + " " + kPackageVersion + " " +
                           kVersion.buildDate + "\n");
    add("status.txt", RunProgram({kSelf, "status"}));
    add("check.txt", RunProgram({kSelf, "check"}));
    add("unit.txt", RunProgram({"systemctl", "--no-pager", "show", "kemd"}));
    add("kemd.crashes", ReadTextFile(kCrashFile, size_t{2} << 20).value_or(""));
    add("os-release", ReadTextFile("/etc/os-release").value_or(""));
}

bool Collection::CopyTrace(const TraceMember& trace, const TarGzip::Put& put) {
    return CopyMasked(trace.file, trace.size, m_mask, [this, &put](std::string_view text) {
        m_progress->Add(text.size());
        return put(text);
    });
}

bool Collection::Put(TarGzip& tar) {
    const auto putText = [this, &tar](const std::string& name, const std::string& text) {
        const std::string masked = m_mask.MaskText(text);
        return tar.Add(kFolder + name, masked.size(),
                       [&masked](const TarGzip::Put& put) { return put(masked); });
    };
    for (const TextMember& text : m_texts) {
        if (!putText(text.name, text.text)) return false;
    }
    for (const TraceMember& trace : m_traces) {
        const auto copy = [this, &trace](const TarGzip::Put& put) { return CopyTrace(trace, put); };
        const bool isPut = tar.Add(kFolder + trace.name, trace.size, copy);
        if (!isPut || !putText(trace.name + ".header.txt", trace.header)) return false;
    }
    return true;
}

bool Collection::IsWhole() const {
    bool isWhole = true;
    for (const TraceMember& trace : m_traces) {
        const std::string& error = trace.file.Error();
        if (error.empty()) continue;
        Complain("%s: %s; in the archive zero bytes stand for what is missing",
                 Printable(trace.file.Path()).c_str(), error.c_str());
        isWhole = false;
    }
    return isWhole;
}

bool Collection::WriteTo(const char* archive, bool isQuiet) {
    // A secret of one text may stand in all others; those of the headers are learnt already.
    for (const TextMember& text : m_texts) (void)m_mask.MaskText(text.text);
    OutputFile file(archive, 0600);
    if (!file.Open()) {
        (void)FileError("write", archive);
        return false;
    }
    TarGzip tar;
    if (!tar.Start(file.Get())) {
        Complain("cannot write %s: gzip is needed", Printable(archive).c_str());
        return false;
    }
    uint64_t total = 0;
    for (const TraceMember& trace : m_traces) total += trace.size;
    m_progress.emplace(archive, total, isQuiet);
    const bool isPut = Put(tar);
    if (!tar.Finish() || !isPut) {
        Complain("cannot write %s: gzip failed", Printable(archive).c_str());
        return false;
    }
    struct stat status = {};
    (void)fstat(file.Get(), &status);
    if (file.Commit()) {
        m_progress->Finish(static_cast<uint64_t>(status.st_size));
        return true;
    }
    (void)FileError("write", archive);
    return false;
}

}  // namespace

int CollectFiles(const TraceOptions& options, const std::vector<std::string>& files,
                 ReportWriter& /*report*/) {
    Collection collection;
    bool isWhole = true;
    for (const std::string& path : files) isWhole = collection.AddTrace(path) && isWhole;
    collection.AddTexts();
    if (!collection.WriteTo(options.reportFile, options.isQuiet)) return kError;
    isWhole = collection.IsWhole() && isWhole;
    return isWhole ? kYes : kError;
}

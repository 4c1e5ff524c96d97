// Whole registry files: check, export, import and restore.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>

#include "base/file_io.h"
#include "base/paths.h"
#include "kemdctl/facts/process_facts.h"
#include "kemdctl/registry/command.h"
#include "kemdctl/registry/daemon_store.h"
#include "kemdctl/registry/file_check.h"
#include "kemdctl/registry/store.h"
#include "kemdctl/ui/output_file.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"
#include "services/registry/file.h"
#include "services/registry/store.h"

namespace {

// Standard input as a file that can be read twice.
UniqueFd SpoolInput() {
    std::FILE* const spool = std::tmpfile();
    if (spool == nullptr) return {};
    UniqueFd file(fcntl(fileno(spool), F_DUPFD_CLOEXEC, 0));
    (void)std::fclose(spool);
    char buffer[16 * 1024];
    ReadResult got;
    do {
        got = ReadFully(STDIN_FILENO, buffer, sizeof buffer);
        if (!WriteFully(file.Get(), {buffer, got.count})) return {};
    } while (got.count == sizeof buffer);
    if (got.error == 0 && lseek(file.Get(), 0, SEEK_SET) == 0) return file;
    if (got.error != 0) errno = got.error;
    return {};
}

// From the file's begin: 0, or what ParseRegistry says.
int Parse(int file, CRegistryNode& to) {
    if (lseek(file, 0, SEEK_SET) != 0) return errno;
    LineReader lines(file);
    return ParseRegistry(lines, to);
}

int ImportError(const char* path, int error) {
    Complain("cannot import %s: %s", Printable(path).c_str(), LoadErrorText(error).c_str());
    return kError;
}

}  // namespace

int RegistryCheck(const CommandLine& line, ReportWriter& report) {
    const char* const path = line.words[0];
    const UniqueFd file = OpenRegularFile(path, O_RDONLY);
    if (!file.IsOpen()) return FileError("open", path);
    bool isClean = true;
    report.OpenArray();
    const bool isRead =
        CheckRegistry(file.Get(), true, [&](size_t number, const std::string& what) {
            isClean = false;
            report.Line(
                [&] { return Printable(path) + ":" + std::to_string(number) + ": " + what; });
            report.Object({}, [&] {
                report.Number("line", number);
                report.Text("message", what);
            });
        });
    if (!isRead) return FileError("read", path);
    return isClean ? kYes : kNo;
}

int RegistryExport(const CommandLine& line, ReportWriter& /*report*/) {
    if (!LoadStore()) return kError;
    if (!line.words.empty() && std::string_view(line.words[0]) != "-") {
        return WriteOutputFile(line.words[0], 0644, [](const FileSink& write) {
            return WriteRegistry(*TheRegistryStore().Root(), write);
        });
    }
    (void)WriteRegistry(*TheRegistryStore().Root(), [](std::string_view text) {
        Write(text);
        return !HasWriteFailed();
    });
    return kYes;
}

int RegistryImport(const CommandLine& line, ReportWriter& /*report*/) {
    const char* const path = line.words[0];
    const bool isInput = std::string_view(path) == "-";
    const UniqueFd file = isInput ? SpoolInput() : OpenRegularFile(path, O_RDONLY);
    if (!file.IsOpen()) return FileError("read", path);
    size_t findings = 0;
    constexpr size_t kShown = 20;
    const bool isRead = CheckRegistry(file.Get(), false, [&](size_t number, const auto& what) {
        if (++findings > kShown) return;
        Complain("%s:%zu: %s", Printable(path).c_str(), number, what.c_str());
    });
    if (!isRead) return FileError("read", path);
    if (findings > 0 && !line.Has("--force")) {
        Complain("%s: nothing was imported; --force imports the file anyway",
                 Counted(findings, "finding").c_str());
        return kNo;
    }
    int error = Parse(file.Get(), *RegistryKey(new CRegistryNode));
    if (error != 0) return ImportError(path, error);
    WriterLock lock;
    if (!lock.Take()) return kError;
    if (const auto code = ImportIntoDaemon(file.Get())) return *code;
    if (!LoadStore()) {
        if (TheRegistryStore().LoadError() != 0) return kError;
        Complain("note: %s becomes the whole store", Printable(path).c_str());
    }
    error = Parse(file.Get(), *TheRegistryStore().Root());
    if (error != 0) return ImportError(path, error);
    TheRegistryStore().MarkDirty();
    return SaveStore();
}

int RegistryRestore(const CommandLine& line, ReportWriter& /*report*/) {
    const char* const source = line.Has("--default") ? kRegistryDefaultFile : kRegistryOldFile;
    if (FindDaemon() != 0) {
        Complain(
            "kemd is running, and its modules would overwrite what is restored: stop kemd first,");
        Complain("or take the root keys that %s has: kemdctl registry import %s", source, source);
        return kError;
    }
    WriterLock lock;
    if (!lock.Take()) return kError;
    // Into the empty tree: if the store were loaded first, its other keys would stay.
    const RegistryKey root = TheRegistryStore().Root();
    int error = RestoreRegistryFile(source, *root);
    const bool hasRootKey = std::any_of(kRootKeyNames.begin(), kRootKeyNames.end(),
                                        [](const char* name) { return FindKey({name}); });
    if (error == 0 && !hasRootKey) error = ENODATA;
    if (error != 0) {
        Complain("cannot restore %s: %s", source, LoadErrorText(error).c_str());
        return kError;
    }
    TheRegistryStore().MarkDirty();
    return SaveStore();
}

// kemdctl xml: whether documents are well-formed, and writing them another way.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "kemdctl/commands.h"
#include "kemdctl/ui/output_file.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"
#include "xml/view.h"

namespace {

constexpr const char* kHelp =
    R"(usage: kemdctl xml check FILE ... [OPTION ...]
       kemdctl xml convert FILE [OPTION ...]

  check     tells whether documents are well-formed: encoding, size and depth, or
            the first error with its line
  convert   writes a document to standard output, in UTF-8 and as it is

  --from ENCODING    what the document is encoded in, whatever it declares
  --no-limits        also documents of any size, depth and number of nodes
  --to ENCODING      of convert: a name or the number of a code page
  --pretty           of convert: a line for each element that is not among text
  --canonical        of convert: canonical XML 1.0, always UTF-8
  --exclusive        of convert: exclusive canonical XML 1.0
  --inclusive-prefixes "P Q"
                     of --exclusive: declarations of these prefixes stay as in the
                     canonical form; #default for the one without a prefix
  --comments         of a canonical form: comments stay
  --output FILE      of convert: into this file, which is replaced whole or not at
                     all; it may be the document itself
  --json             of check: results as JSON

External entities and document types are never read.
Exit status: 0 done, 1 a document is not well-formed, 2 error.
)";

constexpr const char* kFrom[] = {"the default", "--from", "the byte order mark", "the declaration",
                                 "the first bytes"};
constexpr const char* kFromWords[] = {"default", "caller", "mark", "declaration", "pattern"};

int UsageError(const std::string& what) {
    Complain("%s; see kemdctl xml --help", what.c_str());
    return kError;
}

// False, after a complaint, when there is no such encoding.
bool PrepareReader(CommandLine& line, XmlReader& reader) {
    if (line.Has("--no-limits")) {
        for (const uint32_t limit :
             {KEMD_XML_LIMIT_SIZE, KEMD_XML_LIMIT_DEPTH, KEMD_XML_LIMIT_NODES}) {
            (void)KemdXmlParserSetLimit(reader.Get(), limit, 0);
        }
    }
    if (!line.Has("--from")) return true;
    const char* const from = line.TakeValue("--from");
    const int error = from == nullptr ? ENOENT : KemdXmlParserSetEncoding(reader.Get(), from);
    if (error == 0) return true;
    const std::string name = Printable(from == nullptr ? "" : from);
    (void)UsageError(error == ENOTSUP
                         ? "--from: the C library of this host does not convert " + name
                         : "--from: there is no encoding " + name);
    return false;
}

// The line of an error, and a mark below its place.
std::string Marked(const KemdXmlError& error) {
    std::string before(error.excerpt);
    size_t end = 0;
    for (uint32_t left = error.mark; end < before.size(); ++end) {
        if ((before[end] & 0xC0) != 0x80 && left-- == 0) break;
    }
    const std::string line = Printable(error.excerpt);
    before.resize(end);
    return "  " + line + "\n  " + std::string(Width(Printable(before)), ' ') + "^";
}

int CheckFailed(ReportWriter& report, const XmlReader& reader, const char* path) {
    const KemdXmlError error = reader.Error();
    const bool isFile = error.cause == KEMD_XML_CAUSE_SYSTEM;
    report.Object({}, [&] {
        report.Text("file", path);
        report.Flag("wellFormed", false);
        report.Text("error", error.text);
        if (error.line == 0) return;
        report.Number("line", error.line);
        report.Number("column", error.column);
        report.Number("offset", error.offset);
    });
    if (isFile) {
        Complain("%s", Printable(error.text).c_str());
        return kError;
    }
    std::string place = Printable(path) + ": ";
    if (error.line != 0) {
        place = Printable(path) + ":" + std::to_string(error.line) + ":" +
                std::to_string(error.column) + ": ";
    }
    report.Line(place + Printable(error.text) + " (byte " + std::to_string(error.offset) + ")");
    if (error.line != 0) {
        const std::string marked = Marked(error);
        report.Line(std::string_view(marked).substr(0, marked.find('\n')));
        report.Line(std::string_view(marked).substr(marked.find('\n') + 1));
    }
    return kNo;
}

int CheckFile(ReportWriter& report, XmlReader& reader, const char* path) {
    XmlDocument document;
    if (reader.ReadFile(path, document) != 0) return CheckFailed(report, reader, path);
    const KemdXmlInfo info = document.Info();
    report.Object({}, [&] {
        report.Text("file", path);
        report.Flag("wellFormed", true);
        report.Text("encoding", info.encoding);
        report.Text("encodingFrom", kFromWords[info.encodingFrom]);
        report.Number("bytes", info.bytes);
        report.Number("depth", info.depth);
        report.Number("nodes", info.nodes);
        report.Number("attributes", info.attributes);
    });
    report.Line(Printable(path) + ": well-formed");
    report.Field("  encoding", std::string(info.encoding) + ", from " + kFrom[info.encodingFrom]);
    report.Field("  size", SizeText(info.bytes) + ", " + Counted(info.nodes, "node") + ", " +
                               Counted(info.attributes, "attribute"));
    report.Field("  depth", Counted(info.depth, "element"));
    return kYes;
}

int RunCheckFiles(CommandLine& line, ReportWriter& report, XmlReader& reader) {
    constexpr std::array<std::string_view, 3> kOptions = {"--json", "--from", "--no-limits"};
    if (!line.HasOnly(kOptions)) return UsageError("these options do not fit check");
    if (line.words.empty()) return UsageError("check takes the name of a file");
    int result = kYes;
    report.OpenObject();
    report.SetColumn(12);
    report.List("documents", line.words, [&](const char* path) {
        result = std::max(result, CheckFile(report, reader, path));
    });
    return result;
}

// One form at most.
bool TakeForm(CommandLine& line, KemdXmlWriteOptions& options) {
    int forms = 0;
    for (const auto& [option, form] : {std::pair{"--pretty", KEMD_XML_PRETTY},
                                       {"--canonical", KEMD_XML_CANONICAL},
                                       {"--exclusive", KEMD_XML_EXCLUSIVE}}) {
        if (!line.Has(option)) continue;
        options.form = form;
        ++forms;
    }
    const bool isCanonical =
        options.form == KEMD_XML_CANONICAL || options.form == KEMD_XML_EXCLUSIVE;
    if (line.Has("--comments")) options.flags |= KEMD_XML_WITH_COMMENTS;
    const bool hasPrefixes = line.Has("--inclusive-prefixes");
    if (hasPrefixes) options.inclusivePrefixes = line.TakeValue("--inclusive-prefixes");
    if (forms > 1) {
        (void)UsageError("--pretty, --canonical and --exclusive exclude each other");
    } else if (hasPrefixes && options.inclusivePrefixes == nullptr) {
        (void)UsageError("--inclusive-prefixes takes prefixes with blanks between them");
    } else if (hasPrefixes && options.form != KEMD_XML_EXCLUSIVE) {
        (void)UsageError("--inclusive-prefixes is for --exclusive");
    } else if (line.Has("--comments") && !isCanonical) {
        (void)UsageError("--comments is for --canonical and --exclusive");
    } else if (line.Has("--to") && isCanonical) {
        (void)UsageError("a canonical form is always UTF-8");
    } else {
        return true;
    }
    return false;
}

int WriteError(int error, const KemdXmlWriteOptions& options, const char* path) {
    const bool isCanonical =
        options.form == KEMD_XML_CANONICAL || options.form == KEMD_XML_EXCLUSIVE;
    if (error == EILSEQ) {
        Complain(
            "%s: a name, comment, instruction or the document type has a character that %s "
            "lacks",
            Printable(path).c_str(), Printable(options.encoding).c_str());
    } else if (error == EINVAL && isCanonical) {
        Complain("%s: a name space is a relative reference: there is no canonical form",
                 Printable(path).c_str());
    } else {
        errno = error;
        return FileError("write", path);
    }
    return kError;
}

int RunConvert(CommandLine& line, XmlReader& reader) {
    constexpr std::array<std::string_view, 9> kOptions = {
        "--from",     "--no-limits", "--to",
        "--pretty",   "--canonical", "--exclusive",
        "--comments", "--output",    "--inclusive-prefixes"};
    KemdXmlWriteOptions options{};
    options.size = sizeof options;
    options.indent = 2;
    if (!TakeForm(line, options)) return kError;
    const bool hasOutput = line.Has("--output");
    const char* const output = hasOutput ? line.TakeValue("--output") : nullptr;
    if (hasOutput && output == nullptr) return UsageError("--output takes the name of a file");
    if (line.Has("--to")) {
        options.encoding = line.TakeValue("--to");
        KemdXmlParser* const check = reader.Get();
        KemdEncoding encoding{};
        encoding.size = sizeof encoding;
        const bool isKnown = options.encoding != nullptr && check != nullptr &&
                             KemdEncodingFind(options.encoding, &encoding) == 0;
        if (!isKnown || encoding.isSupported == 0) {
            return UsageError("--to: there is no encoding " +
                              Printable(options.encoding == nullptr ? "" : options.encoding) +
                              " on this host");
        }
    }
    if (!line.HasOnly(kOptions)) return UsageError("these options do not fit convert");
    if (line.words.size() != 1) return UsageError("convert takes the name of one file");
    const char* const path = line.words[0];

    XmlDocument document;
    if (reader.ReadFile(path, document) != 0) {
        const KemdXmlError error = reader.Error();
        if (error.cause == KEMD_XML_CAUSE_SYSTEM) {
            Complain("%s", Printable(error.text).c_str());
            return kError;
        }
        Complain("%s:%lu:%lu: %s", Printable(path).c_str(), static_cast<unsigned long>(error.line),
                 static_cast<unsigned long>(error.column), Printable(error.text).c_str());
        return kNo;
    }
    if (hasOutput) {
        const int error = KemdXmlWriteFile(document.Get(), &options, output);
        return error == 0 ? kYes : WriteError(error, options, output);
    }
    const int error = document.WriteTo(
        [](std::string_view piece) {
            Write(piece);
            return HasWriteFailed() ? EPIPE : 0;
        },
        &options);
    return error == 0 || HasWriteFailed() ? kYes : WriteError(error, options, path);
}

}  // namespace

int RunXml(CommandLine& line, ReportWriter& report) {
    if (line.Has("--help")) {
        report.SetJson(false);
        Write(kHelp);
        return kYes;
    }
    XmlReader reader;
    if (!PrepareReader(line, reader)) return kError;
    // Options whose values would be taken for the subcommand.
    const std::string_view name = line.TakeCommand();
    if (name == "check") return RunCheckFiles(line, report, reader);
    if (name == "convert") return RunConvert(line, reader);
    return UsageError(name.empty() ? "a subcommand is missing"
                                   : "unknown subcommand " + Printable(name));
}

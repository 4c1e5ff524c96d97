// Documents of 50 MB, heavy in attributes, in text and in depth: read by expat alone with empty
// handlers, into a tree by kemd, libxml2 and pugixml, and written plainly and canonically. Each
// contender works in a process of its own, so that its memory is its own. They take turns, and kemd
// is compared with each of the others in the same round, by the processor time that both took:
// other work on the machine hits both alike.
#include <expat.h>
#include <libxml/c14n.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <pugixml.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "xml/view.h"

namespace {

constexpr size_t kSize = 50'000'000;
constexpr int kRounds = 11;

// A table as an inventory writes it: all in attributes.
std::string WithAttributes() {
    std::string text = "<inventory xmlns:p=\"urn:part\">\n";
    for (size_t i = 0; text.size() < kSize; ++i) {
        text += "  <part id=\"" + std::to_string(i) + "\" name=\"DIMM " + std::to_string(i % 32) +
                "\" p:size=\"16384\" state=\"ok\" slot=\"" + std::to_string(i % 7) +
                "\" speed=\"3200\" vendor=\"A &amp; B\"/>\n";
    }
    return text + "</inventory>\n";
}

// A log: much text in few elements.
std::string WithText() {
    std::string text = "<log>\n";
    while (text.size() < kSize) {
        text += "<entry>";
        for (int i = 0; i < 100; ++i) {
            text += "The fan of the second power supply runs at its highest speed again & ";
            text.insert(text.size() - 1, "amp;");
            text += "this is reported for the last time in this hour.\n";
        }
        text += "</entry>\n";
    }
    return text + "</log>\n";
}

// Elements within elements, 500 deep, with a word in each.
std::string WithDepth() {
    std::string text = "<tree>";
    while (text.size() < kSize) {
        for (int i = 0; i < 500; ++i) text += "<n>x";
        for (int i = 0; i < 500; ++i) text += "</n>";
    }
    return text + "</tree>";
}

void Expat(const std::string& text) {
    const XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetElementHandler(
        parser, [](void*, const XML_Char*, const XML_Char**) {}, [](void*, const XML_Char*) {});
    XML_SetCharacterDataHandler(parser, [](void*, const XML_Char*, int) {});
    if (XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1) != XML_STATUS_OK) _exit(1);
    XML_ParserFree(parser);
}

XmlDocument Read(const std::string& text) {
    XmlReader reader;
    XmlDocument document;
    if (reader.Parse(text, document) != 0) {
        std::fprintf(stderr, "%s\n", reader.Error().text);
        _exit(1);
    }
    return document;
}

xmlDocPtr ReadByLibxml2(const std::string& text) {
    const xmlDocPtr document =
        xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, XML_PARSE_HUGE);
    if (document == nullptr) _exit(1);
    return document;
}

double Milliseconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// What a contender prepares is not measured; what it does is.
struct Work {
    const char* name;
    std::function<std::function<void()>(const std::string& text)> prepare;
};

struct Sample {
    double elapsed;  // milliseconds
    double processor;
    double mebibytes;
};

long PeakKb() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// A host may take back memory that its virtual machine does not use, huge pages first, and to get
// it again can take 30 times as long as to clear it. So before each contender begins, more memory
// than kemd or expat needs is taken and freed. libxml2 and pugixml need more for some.
void WarmMemory() {
    constexpr size_t kBytes = size_t{512} << 20;
    void* const memory =
        mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return;
    (void)madvise(memory, kBytes, MADV_HUGEPAGE);
    (void)madvise(memory, kBytes, MADV_POPULATE_WRITE);
    (void)munmap(memory, kBytes);
}

Sample Measure(const Work& work, const std::string& text) {
    WarmMemory();
    int ends[2];
    if (pipe(ends) != 0) _exit(1);
    const pid_t child = fork();
    if (child == 0) {
        const std::function<void()> once = work.prepare(text);
        const long before = PeakKb();
        const double start = Milliseconds(CLOCK_MONOTONIC);
        const double processor = Milliseconds(CLOCK_PROCESS_CPUTIME_ID);
        once();
        const Sample sample{Milliseconds(CLOCK_MONOTONIC) - start,
                            Milliseconds(CLOCK_PROCESS_CPUTIME_ID) - processor,
                            static_cast<double>(PeakKb() - before) / 1024};
        _exit(write(ends[1], &sample, sizeof sample) == sizeof sample ? 0 : 1);
    }
    Sample sample{};
    close(ends[1]);
    if (read(ends[0], &sample, sizeof sample) != sizeof sample) {
        std::fprintf(stderr, "xml_bench: \"%s\" failed\n", work.name);
        std::exit(1);
    }
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return sample;
}

std::vector<Work> ReadingWorks() {
    return {
        {"kemd, tree", [](const std::string& text) { return [&text] { Read(text); }; }},
        {"expat, no tree", [](const std::string& text) { return [&text] { Expat(text); }; }},
        {"libxml2, tree",
         [](const std::string& text) { return [&text] { xmlFreeDoc(ReadByLibxml2(text)); }; }},
        {"pugixml, tree",
         [](const std::string& text) {
             return [&text] {
                 pugi::xml_document document;
                 if (!document.load_buffer(text.data(), text.size(), pugi::parse_full)) _exit(1);
             };
         }},
    };
}

Work Writing(const char* name, uint32_t form) {
    return {name, [form](const std::string& text) {
                auto document = std::make_shared<XmlDocument>(Read(text));
                return [document, form] {
                    KemdXmlWriteOptions options{};
                    options.size = sizeof options;
                    options.form = form;
                    options.flags = KEMD_XML_WITH_COMMENTS;
                    if (document->Written(&options).size() < kSize / 2) _exit(1);
                };
            }};
}

std::vector<Work> WritingWorks() {
    return {
        Writing("kemd, written", KEMD_XML_COMPACT),
        {"libxml2, written",
         [](const std::string& text) {
             const xmlDocPtr document = ReadByLibxml2(text);
             return [document] {
                 xmlChar* out = nullptr;
                 int size = 0;
                 xmlDocDumpMemory(document, &out, &size);
                 xmlFree(out);
             };
         }},
        {"pugixml, written",
         [](const std::string& text) {
             auto document = std::make_shared<pugi::xml_document>();
             document->load_buffer(text.data(), text.size(), pugi::parse_full);
             return [document] {
                 std::ostringstream out;
                 document->save(out, "", pugi::format_raw);
             };
         }},
    };
}

std::vector<Work> CanonicalWorks() {
    return {
        Writing("kemd, canonical", KEMD_XML_CANONICAL),
        {"libxml2, canonical",
         [](const std::string& text) {
             const xmlDocPtr document = ReadByLibxml2(text);
             return [document] {
                 xmlChar* out = nullptr;
                 xmlC14NDocDumpMemory(document, nullptr, XML_C14N_1_0, nullptr, 1, &out);
                 xmlFree(out);
             };
         }},
    };
}

// The first one is compared with the others.
void Show(const std::vector<Work>& works, const std::string& text, const char* wanted) {
    struct Results {
        std::vector<double> elapsed, processor, ratios, mebibytes;
    };
    std::vector<Results> results(works.size());
    const bool isWanted = std::any_of(works.begin(), works.end(), [wanted](const Work& work) {
        return std::strstr(work.name, wanted) != nullptr;
    });
    if (!isWanted) return;
    for (int round = 0; round < kRounds; ++round) {
        for (size_t i = 0; i < works.size(); ++i) {
            if (i > 0 && std::strstr(works[i].name, wanted) == nullptr) continue;
            const Sample sample = Measure(works[i], text);
            results[i].elapsed.push_back(sample.elapsed);
            results[i].processor.push_back(sample.processor);
            results[i].ratios.push_back(results[0].processor.back() / sample.processor);
            results[i].mebibytes.push_back(sample.mebibytes);
        }
    }
    const auto least = [](const std::vector<double>& of) {
        return *std::min_element(of.begin(), of.end());
    };
    for (size_t i = 0; i < works.size(); ++i) {
        const Results& each = results[i];
        if (each.elapsed.empty()) continue;
        std::printf("  %-20s %8.0f ms %8.0f ms %8.0f ms %8.0f MiB", works[i].name,
                    Median(each.elapsed), Median(each.processor), least(each.processor),
                    Median(each.mebibytes));
        if (i > 0) {
            std::printf("   %.2f x, of the least %.2f x", Median(each.ratios),
                        least(results[0].processor) / least(each.processor));
        }
        std::printf("\n");
    }
    std::fflush(stdout);
}

}  // namespace

// xml_bench [DOCUMENT [CONTENDER]]: those whose names contain these words, beside kemd.
int main(int argc, char** argv) {
    const struct {
        const char* name;
        std::string (*make)();
    } documents[] = {{"attributes", WithAttributes}, {"text", WithText}, {"depth", WithDepth}};
    std::printf(
        "%d rounds; median time, of the processor, least of the processor, memory; how\n"
        "many times as long kemd takes, median of the rounds\n",
        kRounds);
    for (const auto& document : documents) {
        if (argc > 1 && std::strstr(document.name, argv[1]) == nullptr) continue;
        const std::string text = document.make();
        std::printf("%s: %zu bytes\n", document.name, text.size());
        for (const auto& works : {ReadingWorks(), WritingWorks(), CanonicalWorks()}) {
            Show(works, text, argc > 2 ? argv[2] : "");
        }
    }
    return 0;
}

// Documents of all encodings, made from a table of parts: what is read and written canonically is
// what libxml2 makes of it, and what is broken is refused by both.
#include <iconv.h>
#include <libxml/c14n.h>
#include <libxml/parser.h>
#include <sys/mman.h>

#include <random>

#include "tests/world.h"
#include "xml/tag.h"
#include "xml/view.h"

namespace {

struct Sample {
    const char* encoding;
    const char* letters;  // that it has beyond ASCII
};
constexpr Sample kSamples[] = {
    {"UTF-8", "aé漢😀"},     {"UTF-16", "é漢😀"},     {"UTF-16LE", "é漢😀"},   {"UTF-16BE", "é漢😀"},
    {"UTF-32LE", "é漢😀"},   {"UTF-32BE", "é漢😀"},   {"US-ASCII", "az"},     {"ISO-8859-1", "äÿ"},
    {"ISO-8859-2", "łž"},   {"ISO-8859-5", "жЯ"},   {"ISO-8859-7", "αω"},   {"ISO-8859-9", "ğş"},
    {"ISO-8859-15", "€Œ"},  {"windows-1250", "€ž"}, {"windows-1251", "жЇ"}, {"windows-1252", "€œ"},
    {"windows-1253", "αώ"}, {"windows-1254", "ğ€"}, {"windows-1257", "ąž"}, {"KOI8-R", "жЯ"},
    {"KOI8-U", "їЯ"},       {"Shift_JIS", "漢カ"},  {"EUC-JP", "漢カ"},     {"GBK", "汉字"},
    {"GB18030", "汉é"},     {"Big5", "漢字"},       {"EUC-KR", "한글"},     {"IBM850", "äé"},
    {"macintosh", "äé"},    {"ISO-8859-4", "ąŋ"},
};

std::string Encoded(const std::string& text, const char* encoding) {
    const iconv_t conversion = iconv_open(encoding, "UTF-8");
    std::string out(text.size() * 4 + 16, '\0');
    char* from = const_cast<char*>(text.data());
    char* to = out.data();
    size_t left = text.size(), room = out.size();
    EXPECT_EQ(iconv(conversion, &from, &left, &to, &room), 0U) << encoding;
    iconv_close(conversion);
    out.resize(out.size() - room);
    return out;
}

class Generator {
  public:
    explicit Generator(unsigned seed) : m_random(seed) {}
    unsigned Pick(unsigned count) { return m_random() % count; }

    std::string Document(const Sample& sample) {
        m_letters = sample.letters;
        std::string text =
            std::string("<?xml version=\"1.0\" encoding=\"") + sample.encoding + "\"?>\n";
        if (Pick(2) == 0) text += "<!-- first -->";
        m_hasType = Pick(2) == 0;
        if (m_hasType) {
            text +=
                "<!DOCTYPE r [\n<!ENTITY e \"in & out\"><!ENTITY n \"<i>&e;</i>tail\">"
                "<!ATTLIST e1 d CDATA \"by default\" t NMTOKENS #IMPLIED>"
                "<!-- in it --><?in it?>\n]>\n";
            for (size_t at = 0; (at = text.find(" & ", at)) != text.npos;)
                text.replace(at, 3, " &#38;#38; ");
        }
        text += "<r xmlns:p=\"urn:p\"" + std::string(Pick(2) == 0 ? " xmlns=\"urn:d\"" : "") + ">" +
                Content(0) + "</r>\n<?last pi?>";
        if (Pick(2) == 0) text += "\n<!--end-->\n";
        constexpr const char* kEnds[] = {"\n", "\r\n", "\r"};
        const std::string end = kEnds[Pick(3)];
        for (size_t at = 0; (at = text.find('\n', at)) != text.npos; at += end.size()) {
            text.replace(at, 1, end);
        }
        return text;
    }

  private:
    std::string Content(int depth) {
        std::string text;
        for (unsigned i = Pick(5) + 1; i > 0; --i) {
            switch (Pick(depth < 4 ? 12 : 8)) {
                case 0:
                    text += "<!-- " + m_letters + " -->";
                    break;
                case 1:
                    text += "<?target  data " + m_letters + "?>";
                    break;
                case 2:
                    text += "<![CDATA[<&]] " + m_letters + ">]]>";
                    break;
                case 3:
                    text += " &lt;&amp;&gt;&quot;&apos;&#xD;&#9;&#x10FFFF; ";
                    break;
                case 4:
                    text += m_hasType ? "&e;&n;" : "\t\n ";
                    break;
                case 5:
                case 6:
                case 7:
                    text += "words " + m_letters + "\n > ";
                    break;
                default:
                    text += Element(depth + 1);
            }
        }
        return text;
    }
    std::string Element(int depth) {
        constexpr const char* kNames[] = {"e1", "p:e2", "e3", "e1", "q:e4", "xml-e"};
        constexpr const char* kAttributes[] = {" xmlns=\"\"",        " xmlns:q='urn:q'",
                                               " p:a=\"1\"",         " a='x\ty\n z&#10;&quot;\"'",
                                               " xml:lang=\"de\"",   " xmlns:p=\"urn:other\"",
                                               " b=\"&lt;>\"",       " t=' x  y '",
                                               " xmlns:z=\"urn:p\"", " xml:space=\"preserve\""};
        const std::string name = kNames[Pick(6)];
        std::string tag = "<" + name;
        if (name[0] == 'q') tag += kAttributes[1];
        for (unsigned i = 0; i < 10; ++i) {
            if (Pick(5) == 0 && !(i == 1 && name[0] == 'q')) tag += kAttributes[i];
        }
        return Pick(4) == 0 ? tag + " />" : tag + ">" + Content(depth) + "</" + name + "\n>";
    }

    std::mt19937 m_random;
    std::string m_letters;
    bool m_hasType = false;
};

// What libxml2 makes of a document, and the first error; name spaces are no warning here.
struct Other {
    explicit Other(const std::string& text) {
        xmlSetStructuredErrorFunc(this, [](void* user, xmlErrorPtr found) {
            auto& self = *static_cast<Other*>(user);
            if (found->level >= XML_ERR_ERROR && self.error == 0) self.error = found->code;
        });
        document =
            xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                          XML_PARSE_NOENT | XML_PARSE_DTDATTR | XML_PARSE_NONET | XML_PARSE_HUGE);
        if (document == nullptr && error == 0) error = -1;
    }
    Other(const Other&) = delete;
    Other& operator=(const Other&) = delete;
    ~Other() { xmlFreeDoc(document); }

    [[nodiscard]] std::string Canonical(bool isExclusive, bool hasComments,
                                        std::vector<const char*> prefixes = {}) const {
        xmlChar* out = nullptr;
        prefixes.push_back(nullptr);
        auto** const list = reinterpret_cast<xmlChar**>(const_cast<char**>(prefixes.data()));
        const int size = xmlC14NDocDumpMemory(
            document, nullptr, isExclusive ? XML_C14N_EXCLUSIVE_1_0 : XML_C14N_1_0,
            isExclusive ? list : nullptr, hasComments ? 1 : 0, &out);
        std::string text = size < 0 ? "none" : std::string(reinterpret_cast<char*>(out));
        xmlFree(out);
        return text;
    }

    xmlDocPtr document = nullptr;
    int error = 0;
};

std::string Canonical(const XmlDocument& document, bool isExclusive, bool hasComments,
                      const char* prefixes = nullptr) {
    KemdXmlWriteOptions options{};
    options.size = sizeof options;
    options.form = isExclusive ? KEMD_XML_EXCLUSIVE : KEMD_XML_CANONICAL;
    options.flags = hasComments ? KEMD_XML_WITH_COMMENTS : 0;
    options.inclusivePrefixes = prefixes;
    int error = 0;
    std::string text = document.Written(&options, KEMD_XML_DOCUMENT_NODE, &error);
    return error == 0 ? text : "none";
}

// What libxml2 alone may refuse.
bool MayRead(const Other& other, const Sample& sample) {
    // It wants a name space to be a valid URI, which the recommendation does not.
    if (other.error == XML_WAR_NS_URI) return true;
    // Its own conversion of UTF-32 fails at the end of its buffer.
    return other.error == XML_I18N_CONV_FAILED &&
           std::string_view(sample.encoding).starts_with("UTF-32");
}

// What kemd alone may refuse.
bool MayRefuse(const KemdXmlError& error) {
    const std::string_view text = error.text;
    // libxml2 takes "1." for a version.
    if (text == "this is not XML 1.0") return true;
    // libxml2 reads an encoding that it does not know as if it were UTF-8.
    return error.cause == KEMD_XML_CAUSE_ENCODING && text.ends_with(" is not known");
}

// For libxml2, which fails to convert UTF-32.
std::string Readable(const std::string& source, const Sample& sample, const std::string& text) {
    const std::string name = sample.encoding;
    if (name.substr(0, 6) != "UTF-32") return text;
    return std::string(source).replace(source.find(name), name.size(), "UTF-8");
}

TEST(XmlCompareTest, CanonicalFormsAreThoseOfLibxml2) {
    for (unsigned i = 0; i < 360; ++i) {
        Generator generator(i);
        const Sample& sample = kSamples[i % std::size(kSamples)];
        const std::string source = generator.Document(sample);
        const std::string text = Encoded(source, sample.encoding);
        const Other other(Readable(source, sample, text));
        XmlReader reader;
        XmlDocument document;
        ASSERT_EQ(reader.Parse(text, document), 0) << sample.encoding << ": " << reader.Error().text
                                                   << " in line " << reader.Error().line << "\n"
                                                   << source;
        ASSERT_EQ(other.error, 0) << source;
        for (const unsigned form : {0U, 1U, 2U, 3U}) {
            ASSERT_EQ(Canonical(document, (form & 1) != 0, (form & 2) != 0),
                      other.Canonical((form & 1) != 0, (form & 2) != 0))
                << source;
        }
        ASSERT_EQ(Canonical(document, true, true, "p  none"),
                  other.Canonical(true, true, {"p", "none"}))
            << source;
        ASSERT_EQ(Canonical(document, true, true, "#default q"),
                  other.Canonical(true, true, {"#default", "q"}))
            << source;
        // Written plainly in its own encoding, prettily in UTF-8, and read again, it is the same.
        KemdXmlWriteOptions options{};
        options.size = sizeof options;
        options.encoding = sample.encoding;
        XmlDocument again;
        ASSERT_EQ(reader.Parse(document.Written(&options), again), 0) << reader.Error().text;
        EXPECT_EQ(Canonical(again, false, true), Canonical(document, false, true)) << source;
    }
}

// Memory that ends where nothing can be read.
class PageEnd {
  public:
    PageEnd()
        : m_pages(static_cast<char*>(mmap(nullptr, kSize + kPage, PROT_READ | PROT_WRITE,
                                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
        EXPECT_EQ(mprotect(m_pages + kSize, kPage, PROT_NONE), 0);
    }
    PageEnd(const PageEnd&) = delete;
    PageEnd& operator=(const PageEnd&) = delete;
    ~PageEnd() { munmap(m_pages, kSize + kPage); }
    [[nodiscard]] std::string_view Put(std::string_view text) const {
        char* const at = m_pages + kSize - text.size();
        text.copy(at, text.size());
        return {at, text.size()};
    }

  private:
    static constexpr size_t kPage = 4096, kSize = size_t{1} << 20;
    char* m_pages;
};

// Attributes that are where their places say.
size_t AtTheirPlaces(const XmlDocument& document, const std::string& text) {
    std::vector<size_t> lines{0};
    for (size_t at = 0; at < text.size(); ++at) {
        const bool isEnd = text[at] == '\n' || (text[at] == '\r' && text[at + 1] != '\n');
        if (isEnd) lines.push_back(at + 1);
    }
    size_t count = 0;
    const auto attributes = document.Find("//@*");
    for (const KemdXmlNode each : *attributes) {
        size_t at = lines.at(KemdXmlLine(document.Get(), each) - 1);
        for (uint32_t left = KemdXmlColumn(document.Get(), each); --left > 0;) {
            do ++at;
            while ((text[at] & 0xC0) == 0x80);
        }
        count += text.substr(at, 40).starts_with(KemdXmlName(document.Get(), each)) ? 1 : 0;
    }
    return count;
}

// Each of these parts at each place of values around the length that is copied at once.
std::string ManyAttributes(size_t& count) {
    std::string all;
    for (const char* part : {"", "&amp;", "&#9;", "&#x10FFFF;", "\t", "\n", "\r", "\r\n", " ", "  ",
                             ">", "/>", "=", "'", "\x7f", "é", "漢", "😀"}) {
        for (size_t i = 0; i < 90; ++i) {
            const size_t size = 13 + i / 18, at = std::min(i % 18, size);
            const std::string value = std::string(size, 'x').insert(at, part);
            all.append("<e a=\"").append(value).append("\"\rk = \"").append(value);
            all.append("\" é\n=\t''/>\n");
            count += 3;
        }
    }
    return all;
}

TEST(XmlCompareTest, AttributesAreThoseOfTheirTags) {
    size_t valueCount = 0;
    const std::string values = ManyAttributes(valueCount);
    const std::string list =
        "<!DOCTYPE r [<!ATTLIST e k NMTOKENS #IMPLIED d CDATA ' by  default'>]>\n";
    const struct {
        std::string text;
        size_t places;  // attributes that are in the document themselves
    } cases[] = {
        {"<r>" + values + "</r>", valueCount},
        {list + "<r>" + values + "</r>", valueCount},
        {"<r a=''/>", 1},
        {"<r a='123456789012345'/>", 1},
        {"<r a='1234567890123456' b=\"'\" ></r>", 2},
        {"<r\n\ta = '>'\r\nb\r=\n\"/>'\"\n/>", 2},
        {"<p:é漢 xmlns:p='urn:p' p:a='1' xml:lang='de' a='é' xmlns='urn:d' é漢='漢'/>", 4},
        {"<!DOCTYPE r [<!ENTITY v 'one & two'><!ENTITY e \"<b c='&v;' d='  x'/>\">]>"
         "<r a='&v;'>&e;<b c='1' d='&#38;v;'/>&e;</r>",
         3},
        {"<!DOCTYPE r SYSTEM 'none' [<!ENTITY v 'V'><!ENTITY e \"<b c='&v;'/>\">]>"
         "<r a='1&v;2'>&e;</r>",
         1},
        {"<!DOCTYPE r [<!ENTITY % p \"<!ENTITY x 'X'>\">%p;]><r a='1&x;2'/>", 1},
    };
    const PageEnd end;
    for (auto [text, places] : cases) {
        for (size_t at = 0; (at = text.find(" & ", at)) != text.npos;)
            text.replace(at, 3, " &#38;#38; ");
        const Other other(text);
        const std::string expected = other.Canonical(false, true);
        ASSERT_EQ(other.error, 0) << text;
        XmlReader reader;
        XmlDocument document;
        for (const char* encoding : {"UTF-8", "UTF-16BE"}) {
            const std::string encoded = Encoded(text, encoding);
            ASSERT_EQ(reader.Parse(end.Put(encoded), document), 0) << reader.Error().text << text;
            EXPECT_EQ(Canonical(document, false, true), expected);
            EXPECT_EQ(AtTheirPlaces(document, text), places) << text.substr(0, 200);
            WriteFile("/tmp/x/places.xml", encoded);
            ASSERT_EQ(reader.ReadFile("/tmp/x/places.xml", document), 0);
            EXPECT_EQ(Canonical(document, false, true), expected);
            for (const char& byte : encoded)
                ASSERT_EQ(KemdXmlParserFeed(reader.Get(), &byte, 1), 0);
            KemdXmlDocument* made = nullptr;
            ASSERT_EQ(KemdXmlParserFinish(reader.Get(), &made), 0);
            EXPECT_EQ(Canonical(XmlDocument(made), false, true), expected);
        }
    }
}

TEST(XmlCompareTest, NothingIsReadAfterWhatCanBeRead) {
    const PageEnd end;
    for (size_t size = 0; size < 40; ++size) {
        const std::string value(size, 'v');
        const std::string_view text =
            end.Put(std::string("<a b='").append(value).append("' c='").append(value).append("'>"));
        Pool<uint32_t> lines;
        XmlPlaces places(lines);
        XmlTag tag(text, 0, places, text.data() + text.size(), false);
        for (const uint32_t place : {size_t{4}, size + 9}) {
            EXPECT_EQ(tag.Next(1), place);
            uint32_t length = 0;
            const char* const found = tag.ShortValue(length);
            EXPECT_TRUE(found == nullptr || std::string_view(found, length) == value) << size;
        }
    }
}

TEST(XmlCompareTest, BrokenDocumentsAreRefusedByBoth) {
    unsigned refused = 0;
    for (unsigned i = 0; i < 2400; ++i) {
        Generator generator(i % 300);
        const Sample& sample = kSamples[(i % 4 == 0 ? i : 0) % std::size(kSamples)];
        std::string text = Encoded(generator.Document(sample), sample.encoding);
        std::mt19937 random(i);
        const size_t at = random() % text.size();
        constexpr std::string_view kBytes = "<>&;\"'= /!?-[]:ax0\x01\x80\xff\n";
        switch (random() % 5) {
            case 0:
                text.erase(at, 1);
                break;
            case 1:
                text.insert(at, 1, kBytes[random() % kBytes.size()]);
                break;
            case 2:
                text[at] = kBytes[random() % kBytes.size()];
                break;
            case 3:
                text.resize(at);
                break;
            default:
                text += text.substr(at, 20);
        }
        const Other other(text);
        XmlReader reader;
        XmlDocument document;
        const bool isRefused = reader.Parse(text, document) != 0;
        const KemdXmlError error = reader.Error();
        refused += isRefused ? 1 : 0;
        const bool isSame = isRefused == (other.error != 0);
        EXPECT_TRUE(isSame || (isRefused ? MayRefuse(error) : MayRead(other, sample)))
            << i << ", " << sample.encoding << ": kemd: " << (isRefused ? error.text : "reads it")
            << ", libxml2: " << other.error << ", line " << error.line << "\n"
            << error.excerpt;
    }
    EXPECT_GT(refused, 1500U);
}

}  // namespace

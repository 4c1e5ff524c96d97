// Reads arbitrary bytes as a document, in pieces. What is read is written, and read again it is the
// same; an error is in the document.
#include "tests/fuzz/fuzz.h"
#include "xml/view.h"

static std::string Canonical(const XmlDocument& document) {
    KemdXmlWriteOptions options{};
    options.size = sizeof options;
    options.form = KEMD_XML_CANONICAL;
    options.flags = KEMD_XML_WITH_COMMENTS;
    int error = 0;
    std::string text = document.Written(&options, KEMD_XML_DOCUMENT_NODE, &error);
    return error == 0 ? text : "none";
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    XmlReader reader;
    XmlDocument document, again;
    const size_t half = size / 2;
    (void)KemdXmlParserFeed(reader.Get(), data, half);
    const std::string_view rest(reinterpret_cast<const char*>(data) + half, size - half);
    if (reader.Parse(rest, document) != 0) {
        const KemdXmlError error = reader.Error();
        Require(error.cause != KEMD_XML_CAUSE_NONE && error.text[0] != '\0', "no cause");
        Require(error.offset <= size, "an error after the end");
        return 0;
    }
    Require(reader.Parse(document.Written(), again) == 0, reader.Error().text);
    Require(Canonical(document) == Canonical(again), "not the same when it is read again");
    return 0;
}

// Looks up arbitrary paths. What is found is in the document, in order, each once.
#include "tests/fuzz/fuzz.h"
#include "xml/view.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const XmlDocument document = [] {
        XmlReader reader;
        XmlDocument made;
        Require(reader.Parse("<r xmlns:p='u'><a n='1'>x<b>1</b></a><p:a n='2'><a><b/></a></p:a>"
                             "<!--c--></r>",
                             made) == 0,
                "the document");
        return made;
    }();
    const std::string path(reinterpret_cast<const char*>(data), size);
    size_t position = 0;
    const auto nodes = document.Find(path.c_str(), document.Root(), nullptr, &position);
    Require(nodes || position <= path.size(), "a position after the end");
    if (!nodes) return 0;
    // No node was added later, so that their numbers are in the order of the document.
    uint32_t last = 0;
    for (const KemdXmlNode node : *nodes) {
        const bool isAttribute = KemdXmlKind(document.Get(), node) == KEMD_XML_ATTRIBUTE;
        if (isAttribute) continue;
        Require(node > last, "not in order");
        last = node;
    }
    return 0;
}

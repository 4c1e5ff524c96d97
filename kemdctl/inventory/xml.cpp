// The inventory as XML, by packaging/inventory.rng.
#include <cerrno>
#include <cstring>
#include <new>

#include "inventory/sections.h"
#include "kemdctl/inventory/output.h"
#include "kemdctl/ui/command.h"
#include "xml/view.h"

namespace {

constexpr const char* kNoCharacters[] = {"\xef\xbf\xbe", "\xef\xbf\xbf"};  // XML forbids them

// Adds elements. Names are ours and texts are UTF-8, so that only memory can be missing.
class InventoryXml {
  public:
    InventoryXml() {
        KemdXmlDocument* document = nullptr;
        Check(KemdXmlCreate("inventory", &document));
        m_document = XmlDocument(document);
    }
    [[nodiscard]] const XmlDocument& Document() const { return m_document; }
    KemdXmlNode Add(KemdXmlNode parent, const char* name) {
        KemdXmlNode node = KEMD_XML_NONE;
        Check(KemdXmlAdd(m_document.Get(), parent, KEMD_XML_NONE, KEMD_XML_ELEMENT, name, nullptr,
                         &node));
        return node;
    }
    void Add(KemdXmlNode parent, const char* name, const std::string& text) {
        Check(KemdXmlSetText(m_document.Get(), Add(parent, name), Allowed(text).c_str()));
    }
    void Set(KemdXmlNode element, const char* name, const std::string& value) {
        Check(KemdXmlSetAttribute(m_document.Get(), element, name, Allowed(value).c_str()));
    }
    void AddField(KemdXmlNode item, const KemdInventoryItem::Value& value);
    void AddItem(KemdXmlNode items, const KemdInventoryItem& item);

  private:
    static void Check(int error) {
        if (error != 0) throw std::bad_alloc();
    }
    static std::string Allowed(std::string text) {
        for (const char* const no : kNoCharacters) {
            for (size_t at = 0; (at = text.find(no, at)) != text.npos;) text.replace(at, 3, "?");
        }
        return text;
    }

    XmlDocument m_document;
};

void InventoryXml::AddField(KemdXmlNode item, const KemdInventoryItem::Value& value) {
    const InventoryFieldInfo& info = value.field.Info();
    const KemdXmlNode field = Add(item, "field");
    Set(field, "name", info.name);
    if (info.kind != KEMD_INVENTORY_TEXT) {
        Set(field, "type", info.kind == KEMD_INVENTORY_NUMBER ? "number" : "boolean");
    }
    if (*info.unit != '\0') Set(field, "unit", info.unit);
    const bool isYes = info.kind == KEMD_INVENTORY_YES;
    const std::string text = isYes ? (value.number != 0 ? "true" : "false") : value.text;
    Check(KemdXmlSetText(m_document.Get(), field, Allowed(text).c_str()));
}

void InventoryXml::AddItem(KemdXmlNode items, const KemdInventoryItem& item) {
    const KemdXmlNode element = Add(items, "item");
    Set(element, "kind", KindWord(item.kind));
    Set(element, "id", item.id);
    Set(element, "name", item.name);
    if (!item.parent.empty()) Set(element, "parent", item.parent);
    for (const auto& value : item.values) AddField(element, value);
}

}  // namespace

int WriteXml(const KemdInventory& inventory) {
    InventoryXml xml;
    const KemdXmlNode root = xml.Document().Root();
    xml.Set(root, "version", "1");
    xml.Set(root, "time", std::to_string(inventory.time));
    const KemdXmlNode sections = xml.Add(root, "sections");
    for (const InventorySection& section : kInventorySections) {
        if ((inventory.sections & section.section) != 0) xml.Add(sections, "section", section.name);
    }
    const KemdXmlNode items = xml.Add(root, "items");
    for (const KemdInventoryItem& item : inventory.items) xml.AddItem(items, item);
    const KemdXmlNode warnings = xml.Add(root, "warnings");
    for (const std::string& warning : inventory.warnings) xml.Add(warnings, "warning", warning);
    const KemdXmlNode notes = xml.Add(root, "notes");
    for (const std::string& note : inventory.notes) xml.Add(notes, "note", note);
    const KemdXmlWriteOptions options = {sizeof options, KEMD_XML_PRETTY, 0, 2, nullptr, nullptr};
    const int error = xml.Document().WriteTo(
        [](std::string_view piece) {
            Write(piece);
            return 0;
        },
        &options);
    if (error == 0) return kYes;
    Complain("cannot write the XML: %s", std::strerror(error));
    return kError;
}

// Look-up by path: the subset of XPath 1.0 that docs/xml.md describes.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "xml/tree.h"

class XmlPath {
  public:
    // `nameSpaces`: pairs of prefix and URI; null: those that are declared at `context`. The
    // position of what is no path of the subset; nothing when it is one. Throws std::bad_alloc.
    [[nodiscard]] std::optional<size_t> Parse(const KemdXmlDocument& document, KemdXmlNode context,
                                              std::string_view path, const char* const* nameSpaces);
    // In the order of the document, each once. Throws std::bad_alloc.
    [[nodiscard]] std::vector<KemdXmlNode> Find(const KemdXmlDocument& document,
                                                KemdXmlNode context) const;

  private:
    enum class Axis : uint8_t { kChild, kDescendant, kAttribute, kSelf, kParent };
    enum class Kind : uint8_t { kName, kText, kComment, kNode };
    struct Test {
        Kind kind = Kind::kName;
        bool isAnyLocal = false;  // *
        bool isAnyUri = false;    // * or *:name
        std::string local;
        std::string uri;
    };
    struct Predicate {
        enum class What : uint8_t { kPosition, kLast, kSelf, kAttribute, kChild } what;
        uint64_t position = 0;
        Test test;
        bool isCompared = false;
        bool isEqual = true;
        std::string value;
    };
    struct Step {
        Axis axis = Axis::kChild;
        bool isAttribute = false;  // also of //@name
        Test test;
        std::vector<Predicate> predicates;
    };
    class Parser;

    static bool Matches(const KemdXmlDocument& document, KemdXmlNode node, const Test& test);
    static bool Holds(const KemdXmlDocument& document, const Predicate& predicate, KemdXmlNode node,
                      size_t position, size_t count);
    static void Select(const KemdXmlDocument& document, const Step& step, KemdXmlNode from,
                       std::vector<KemdXmlNode>& out);
    // Also of all nodes within it when the step is one of "//".
    static void SelectAll(const KemdXmlDocument& document, const Step& step, KemdXmlNode from,
                          std::vector<KemdXmlNode>& out);

    bool m_isAbsolute = false;
    std::vector<Step> m_steps;
};

// Writes documents. What the encoding lacks becomes a reference where one may stand.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "xml/encoding.h"
#include "xml/tree.h"

// Takes the next bytes; an errno number ends the writing.
using XmlSink = std::function<int(std::string_view)>;

struct XmlWriteOptions {
    uint32_t form = KEMD_XML_COMPACT;
    uint32_t flags = 0;
    uint32_t indent = 2;
    std::string encoding = "UTF-8";
    std::string inclusivePrefixes = {};  // of the exclusive form
};

// An errno number: see KemdXmlWrite. Throws std::bad_alloc.
[[nodiscard]] int WriteXml(const KemdXmlDocument& document, uint32_t top,
                           const XmlWriteOptions& options, const XmlSink& sink);

// Encoded output in pieces. After an error nothing more is written.
class XmlOutput {
  public:
    XmlOutput(const XmlSink& sink, Encoder& encoder, bool isUtf8)
        : m_sink(sink), m_encoder(encoder), m_isUtf8(isUtf8) {}

    // Markup: all of it must be in the encoding.
    void Put(std::string_view markup);
    // Text or a value: what `special` says, and what the encoding lacks, become references.
    enum class Kind : uint8_t { kText, kValue, kCanonicalText, kCanonicalValue };
    void PutText(std::string_view text, Kind kind);
    void PutCdata(std::string_view text);
    [[nodiscard]] int Finish();
    [[nodiscard]] int Error() const { return m_error; }
    void Fail(int error) {
        if (m_error == 0) m_error = error;
    }

  private:
    void PutEncoded(std::string_view text, std::string_view before, std::string_view after);
    void Flush();

    const XmlSink& m_sink;
    Encoder& m_encoder;
    bool m_isUtf8;
    int m_error = 0;
    std::string m_buffer;
};

// Calls `enter` for each node from `top` on, and `leave` after what is within it. What `enter`
// returns false for is not walked.
template <typename Enter, typename Leave>
void WalkXml(const KemdXmlDocument& document, uint32_t top, const Enter& enter,
             const Leave& leave) {
    uint32_t node = top;
    for (;;) {
        const uint32_t child = enter(node) ? document.First(node) : KEMD_XML_NONE;
        if (child != KEMD_XML_NONE) {
            node = child;
            continue;
        }
        leave(node);
        while (node != top && document.At(node).next == KEMD_XML_NONE) {
            node = document.At(node).parent;
            leave(node);
        }
        if (node == top) return;
        node = document.At(node).next;
    }
}

// C14N: the two canonical forms.
void WriteCanonical(const KemdXmlDocument& document, uint32_t top, const XmlWriteOptions& options,
                    XmlOutput& output);

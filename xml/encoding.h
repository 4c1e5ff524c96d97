// Encodings of documents: which one a document has, and converting to UTF-8 and from it. The
// encodings of Unicode, Latin-1 and ASCII are converted here, all others by the C library.
#pragma once

#include <iconv.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

struct CodePage;

enum class Coding : uint8_t {
    kUtf8,
    kAscii,
    kLatin1,
    kUtf16Little,
    kUtf16Big,
    kUtf32Little,
    kUtf32Big,
    kLibrary,  // iconv
};

// An encoding by any of its names.
struct Encoding {
    Coding coding = Coding::kUtf8;
    std::string name = "UTF-8";      // preferred
    const CodePage* page = nullptr;  // null: only iconv knows it
    bool hasMark = false;            // UTF-16 and UTF-32, of which the bytes' order is not said
    bool hasState = false;           // a byte's meaning depends on those long before it
};
// 0; ENOENT: unknown; ENOTSUP: known, but the C library does not convert it. Throws std::bad_alloc.
[[nodiscard]] int FindEncoding(std::string_view name, Encoding& encoding);

// The owner of a conversion by the C library.
class Conversion {
  public:
    Conversion() = default;
    ~Conversion() { Close(); }
    Conversion(const Conversion&) = delete;
    Conversion& operator=(const Conversion&) = delete;
    // From the encoding to UTF-8, or back. False: there is none.
    [[nodiscard]] bool Open(const Encoding& encoding, bool toUtf8);
    void Close();
    [[nodiscard]] iconv_t Get() const { return m_conversion; }

  private:
    [[nodiscard]] bool Open(const std::string& name, bool toUtf8);

    iconv_t m_conversion = nullptr;
};

// What a conversion did. It ended because the room was full, nothing was left, what is left is the
// begin of a character, or what follows is no character.
struct Converted {
    size_t taken = 0;
    size_t given = 0;
    bool isBad = false;  // what follows is no character
};

// To UTF-8.
class Decoder {
  public:
    // False: the C library does not have the encoding.
    [[nodiscard]] bool Open(const Encoding& encoding);
    [[nodiscard]] const Encoding& Of() const { return m_encoding; }
    // `room` of at least 8 bytes.
    Converted Convert(std::string_view bytes, char* out, size_t room);
    // What the C library kept until it knows the next character.
    size_t Flush(char* out, size_t room);

  private:
    Encoding m_encoding;
    Conversion m_conversion;
};

// From UTF-8. What goes in is valid.
class Encoder {
  public:
    // False: the C library does not have the encoding.
    [[nodiscard]] bool Open(const Encoding& encoding);
    // Appends all up to the first character that the encoding lacks; how much was taken.
    size_t Convert(std::string_view text, std::string& out);
    // Bytes that come before the first character.
    void Begin(std::string& out) const;
    // ... and after the last one.
    void End(std::string& out);

  private:
    size_t ConvertByLibrary(std::string_view text, std::string& out);
    bool Put(uint32_t character, std::string& out) const;

    Encoding m_encoding;
    Conversion m_conversion;
    size_t m_step = 4096;  // bytes that are converted at a time
};

struct Detection {
    Encoding encoding;
    uint32_t from = 0;     // KEMD_XML_FROM_
    size_t mark = 0;       // bytes of the byte order mark
    std::string declared;  // encoding="..."
    std::string error;     // why the document cannot be read; empty: it can
};
// From the first bytes. False: more are needed; never with `isAll`. `wanted`: what the caller says
// the encoding is, or null. Throws std::bad_alloc.
[[nodiscard]] bool Detect(std::string_view head, bool isAll, const Encoding* wanted,
                          Detection& detection);

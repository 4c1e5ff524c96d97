// Finds the encoding of arbitrary bytes, and converts them to UTF-8 and back.
#include "base/utf8.h"
#include "tests/fuzz/fuzz.h"
#include "xml/encoding.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    Detection detection;
    Require(Detect(bytes, true, nullptr, detection), "not decided at the end");
    Decoder decoder;
    Encoder encoder;
    const Encoding& found = detection.encoding;
    if (!detection.error.empty() || !decoder.Open(found) || !encoder.Open(found)) return 0;
    Require(detection.mark <= size, "a mark after the end");
    std::string text(size * 8 + 16, '\0');
    const std::string_view rest = bytes.substr(detection.mark);
    const Converted done = decoder.Convert(rest, text.data(), text.size());
    Require(done.taken <= rest.size() && done.given <= text.size(), "more than there is");
    text.resize(done.given);
    if (found.coding == Coding::kUtf8 || found.coding == Coding::kLibrary) return 0;
    std::string back;
    Require(encoder.Convert(text, back) == text.size(), "a character that it had is lacking");
    Require(back == rest.substr(0, done.taken) || found.hasMark, "other bytes than before");
    return 0;
}

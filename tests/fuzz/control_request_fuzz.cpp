// Reads any bytes as a request on the control socket: it is refused with an answer that is JSON on
// one line, or it is whole, and its texts come back as they are.
#include "base/json.h"
#include "switch_library/control_request.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    ControlRequest request;
    const std::string refusal = ReadControlRequest(line, request);
    std::string fault;
    if (!refusal.empty()) {
        const std::string answer = ControlError(refusal);
        Require(answer.find('\n') == answer.size() - 1, "more than one line");
        const auto document = ParseJson(answer, fault);
        Require(document && !document->TextOf("error").empty(), "an answer that is no JSON");
        return 0;
    }
    const bool isForModule = request.kind != ControlRequest::kModules &&
                             request.kind != ControlRequest::kRegistry &&
                             request.kind != ControlRequest::kTraceLevel;
    Require(request.module.empty() != isForModule, "no module");
    for (const std::string& text : {request.module, request.text}) {
        Require(text.find('\0') == text.npos, "a NUL");
        const auto value = ParseJson(JsonQuoted(text), fault);
        Require(value && value->text == text, "another text");
    }
    return 0;
}

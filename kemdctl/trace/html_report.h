// kemdctl trace --html: the chosen records as one page that needs nothing but a browser.
#pragma once

#include <memory>
#include <string>

#include "kemdctl/trace/sink.h"

// The file is there whole when the sink has finished, or as it was. Keeps the newest records, up to
// a limit of number and of bytes; the page tells how many were left out.
[[nodiscard]] std::unique_ptr<RecordSink> MakeHtmlSink(std::string path);

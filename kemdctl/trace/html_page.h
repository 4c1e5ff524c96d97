// The page of kemdctl trace --html, made at build time of report.html, report.css and report.js.
#pragma once

#include <string_view>

// The page has its data, JSON, between the two.
extern const std::string_view kPageBeforeData;
extern const std::string_view kPageAfterData;

// The page of kemdctl performance --html, made at build time of page.html, page.css and page.js.
#pragma once

#include <string_view>

// The page has its data, JSON, between the two.
extern const std::string_view kPerformancePageBeforeData;
extern const std::string_view kPerformancePageAfterData;

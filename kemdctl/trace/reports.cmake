# The reports and exports of kemdctl trace; included by the project's CMakeLists.txt.
set(KEMD_REPORTS ${PROJECT_SOURCE_DIR}/kemdctl/trace)
set(KEMD_PAGE ${PROJECT_BINARY_DIR}/html_page.cpp)
add_custom_command(OUTPUT ${KEMD_PAGE}
  COMMAND ${CMAKE_COMMAND} -D FOLDER=${KEMD_REPORTS} -D OUTPUT=${KEMD_PAGE}
    -P ${KEMD_REPORTS}/html_page.cmake
  DEPENDS ${KEMD_REPORTS}/report.html ${KEMD_REPORTS}/report.css ${KEMD_REPORTS}/report.js
    ${KEMD_REPORTS}/html_page.cmake
  COMMENT "Putting the report's page together" VERBATIM)
target_sources(kemdctl PRIVATE ${KEMD_PAGE}
  kemdctl/trace/collect.cpp kemdctl/trace/collect_archive.cpp
  kemdctl/trace/collect_mask.cpp kemdctl/trace/header_report.cpp
  kemdctl/trace/html_report.cpp kemdctl/trace/last_run.cpp
  kemdctl/trace/last_run_facts.cpp kemdctl/trace/progress.cpp kemdctl/trace/run_marks.cpp
  kemdctl/trace/stats.cpp kemdctl/trace/stats_histogram.cpp
  kemdctl/trace/stats_json.cpp kemdctl/trace/stats_tally.cpp
  kemdctl/trace/stats_text.cpp kemdctl/trace/timeline_export.cpp
  kemdctl/trace/verify.cpp)

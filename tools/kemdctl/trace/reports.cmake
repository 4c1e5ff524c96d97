# The reports and exports of kemdctl trace; included by the project's CMakeLists.txt.
set(KEMD_REPORTS ${PROJECT_SOURCE_DIR}/tools/kemdctl/trace)
set(KEMD_PAGE ${PROJECT_BINARY_DIR}/html_page.cpp)
add_custom_command(OUTPUT ${KEMD_PAGE}
  COMMAND ${CMAKE_COMMAND} -D FOLDER=${KEMD_REPORTS} -D OUTPUT=${KEMD_PAGE}
    -P ${KEMD_REPORTS}/html_page.cmake
  DEPENDS ${KEMD_REPORTS}/report.html ${KEMD_REPORTS}/report.css ${KEMD_REPORTS}/report.js
    ${KEMD_REPORTS}/html_page.cmake
  COMMENT "Putting the report's page together" VERBATIM)
target_sources(kemdctl PRIVATE ${KEMD_PAGE}
  tools/kemdctl/trace/collect.cpp tools/kemdctl/trace/collect_archive.cpp
  tools/kemdctl/trace/collect_mask.cpp tools/kemdctl/trace/header_report.cpp
  tools/kemdctl/trace/html_report.cpp tools/kemdctl/trace/last_run.cpp
  tools/kemdctl/trace/last_run_facts.cpp tools/kemdctl/trace/progress.cpp tools/kemdctl/trace/run_marks.cpp
  tools/kemdctl/trace/stats.cpp tools/kemdctl/trace/stats_histogram.cpp
  tools/kemdctl/trace/stats_json.cpp tools/kemdctl/trace/stats_tally.cpp
  tools/kemdctl/trace/stats_text.cpp tools/kemdctl/trace/timeline_export.cpp
  tools/kemdctl/trace/verify.cpp)

# What kemdctl trace does with records: choose them, show them, wait for them; included by the
# project's CMakeLists.txt.
target_sources(kemdctl PRIVATE
  tools/kemdctl/trace/choice.cpp tools/kemdctl/trace/data_printer.cpp
  tools/kemdctl/trace/last_records.cpp tools/kemdctl/trace/options.cpp
  tools/kemdctl/trace/output.cpp tools/kemdctl/trace/pager.cpp tools/kemdctl/trace/pattern.cpp
  tools/kemdctl/trace/record_run.cpp tools/kemdctl/trace/run_start.cpp
  tools/kemdctl/trace/show_sink.cpp tools/kemdctl/trace/stopper.cpp
  tools/kemdctl/trace/text_printer.cpp tools/kemdctl/trace/time_word.cpp
  tools/kemdctl/trace/trace_files.cpp)

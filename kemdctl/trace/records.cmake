# What kemdctl trace does with records: choose them, show them, wait for them; included by the
# project's CMakeLists.txt.
target_sources(kemdctl PRIVATE
  kemdctl/trace/choice.cpp kemdctl/trace/data_printer.cpp
  kemdctl/trace/last_records.cpp kemdctl/trace/options.cpp
  kemdctl/trace/output.cpp kemdctl/trace/pager.cpp kemdctl/trace/pattern.cpp
  kemdctl/trace/record_run.cpp kemdctl/trace/run_start.cpp
  kemdctl/trace/show_sink.cpp kemdctl/trace/stopper.cpp
  kemdctl/trace/text_printer.cpp kemdctl/trace/time_word.cpp
  kemdctl/trace/trace_files.cpp)

# The duplicate engine's readers of org data.
if(TARGET corvane_dedupe)
  # CsvStream::parsePage on any bytes: refuses or reads, never crashes.
  corvane_fuzzer(dedupe_csv_page SOURCES ${CMAKE_CURRENT_LIST_DIR}/dedupe_csv_page.cpp
                 LIBS corvane_dedupe)
  # The normalisers and string scores on any bytes.
  corvane_fuzzer(dedupe_text SOURCES ${CMAKE_CURRENT_LIST_DIR}/dedupe_text.cpp LIBS corvane_dedupe)
endif()

# The import engine's parsers of user files.
if(TARGET corvane_import)
  corvane_fuzzer(import_delimited SOURCES ${PROJECT_SOURCE_DIR}/fuzz/import_delimited.cpp
                 LIBS corvane_import)
  corvane_fuzzer(import_xlsx SOURCES ${PROJECT_SOURCE_DIR}/fuzz/import_xlsx.cpp
                 LIBS corvane_import)
  corvane_fuzzer(import_xlsx_parts SOURCES ${PROJECT_SOURCE_DIR}/fuzz/import_xlsx_parts.cpp
                 LIBS corvane_import)
endif()

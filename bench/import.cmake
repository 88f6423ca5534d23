# The import engine: delimited text and .xlsx reading.
if(TARGET corvane_import)
  # DelimitedText::parse on 100 MB of CSV (target: at least 100 MB/s).
  add_executable(import_csv_bench ${PROJECT_SOURCE_DIR}/bench/import_csv_bench.cpp)
  target_link_libraries(import_csv_bench PRIVATE corvane_import benchmark::benchmark)

  # XlsxReader on a 100,000 x 20 workbook (target: under 2 seconds, memory well
  # below the unpacked sheet).
  add_executable(import_xlsx_bench ${PROJECT_SOURCE_DIR}/bench/import_xlsx_bench.cpp)
  target_link_libraries(import_xlsx_bench PRIVATE corvane_import PkgConfig::XLSXWRITER
                        PkgConfig::LIBZIP benchmark::benchmark)
endif()

if(TARGET corvane_import)
  # Mapping and coercion of a 100,000 x 20 grid (target: under 1 second).
  add_executable(import_run_bench ${PROJECT_SOURCE_DIR}/bench/import_run_bench.cpp)
  target_link_libraries(import_run_bench PRIVATE corvane_import benchmark::benchmark)
endif()

# The import runner end to end: 100,000 rows written to the sample org
# (in-process) through Bulk API ingest jobs, in rows per second.
if(TARGET corvane_import AND TARGET corvane_orgsim AND TARGET corvane_connections)
  add_executable(import_write_bench ${PROJECT_SOURCE_DIR}/bench/import_write_bench.cpp)
  target_link_libraries(import_write_bench PRIVATE corvane_import corvane_connections
                        corvane_orgsim benchmark::benchmark)
endif()

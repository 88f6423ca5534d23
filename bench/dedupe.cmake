# The duplicate engine's hot paths and the snapshot download end to end.
if(TARGET corvane_dedupe)
  # jaroWinkler on short names and normalize for person names.
  add_executable(dedupe_text_bench dedupe_text_bench.cpp)
  target_link_libraries(dedupe_text_bench PRIVATE corvane_dedupe benchmark::benchmark)

  # CSV pages parsed, normalised and stored: 3 match fields, 2 extras.
  add_executable(dedupe_ingest_bench dedupe_ingest_bench.cpp)
  target_link_libraries(dedupe_ingest_bench PRIVATE corvane_dedupe benchmark::benchmark)
endif()

if(TARGET corvane_dedupe AND TARGET corvane_orgsim_generate AND TARGET corvane_connections)
  # 1,000,000 Contacts from the sample org into a snapshot through a Bulk query job.
  add_executable(dedupe_download_bench dedupe_download_bench.cpp)
  target_link_libraries(dedupe_download_bench PRIVATE corvane_dedupe corvane_connections
                        corvane_orgsim_generate corvane_orgsim benchmark::benchmark)
endif()

if(TARGET corvane_dedupe)
  # Matcher accuracy on the FEBRL data sets (precision, recall, F1 per strictness).
  add_executable(dedupe_match_febrl_bench dedupe_match_febrl_bench.cpp)
  target_link_libraries(dedupe_match_febrl_bench PRIVATE corvane_dedupe benchmark::benchmark)
  target_compile_definitions(dedupe_match_febrl_bench PRIVATE
    CORVANE_FEBRL_DEFAULT="${PROJECT_SOURCE_DIR}/../shared/data/febrl")

  # 1,000,000 Contacts with three match fields matched end to end.
  add_executable(dedupe_match_speed_bench dedupe_match_speed_bench.cpp)
  target_link_libraries(dedupe_match_speed_bench PRIVATE corvane_dedupe benchmark::benchmark)
endif()

if(TARGET corvane_dedupe AND TARGET corvane_orgsim_generate AND TARGET corvane_connections)
  # Matcher accuracy on the sample org's Contacts against its ground truth.
  add_executable(dedupe_match_sample_org_bench dedupe_match_sample_org_bench.cpp)
  target_link_libraries(dedupe_match_sample_org_bench PRIVATE corvane_dedupe corvane_connections
                        corvane_orgsim_generate corvane_orgsim benchmark::benchmark)
endif()

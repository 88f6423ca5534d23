# A backup run end to end against the sample org.
if(TARGET corvane_backup AND TARGET corvane_orgsim_generate AND TARGET corvane_connections)
  # 1,000,000 Contacts: page -> CSV -> commit -> known_ids; and a quiet changes run's requests.
  add_executable(backup_run_bench ${CMAKE_CURRENT_LIST_DIR}/backup_run_bench.cpp)
  target_link_libraries(backup_run_bench PRIVATE corvane_backup corvane_connections
                        corvane_orgsim_generate corvane_orgsim benchmark::benchmark)
endif()

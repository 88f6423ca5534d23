# Restores from a backup.
if(TARGET corvane_backup AND TARGET corvane_orgsim)
  # 10,000 purged Contacts created again from a backup against the sample org
  # (served in-process on loopback): records per second, and how much of the
  # time went to the org's answers.
  add_executable(restore_bench ${PROJECT_SOURCE_DIR}/bench/restore_bench.cpp)
  target_link_libraries(restore_bench PRIVATE corvane_backup corvane_orgsim benchmark::benchmark)
endif()

# The backup folder: scanning the CSV that earlier runs kept and Salesforce sends.
if(TARGET corvane_backup)
  # BackupCSV::scan (streaming) on 50 MB of Bulk API-style CSV (target: at least 200 MB/s).
  add_executable(backup_csv_bench ${CMAKE_CURRENT_LIST_DIR}/backup_csv_bench.cpp)
  target_link_libraries(backup_csv_bench PRIVATE corvane_backup benchmark::benchmark)
endif()

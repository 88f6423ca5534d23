# Salesforce's answers about deletions: the delete log, Recycle Bin checks and
# undelete replies.
if(TARGET corvane_backup)
  corvane_fuzzer(backup_keeping_replies
                 SOURCES ${CMAKE_CURRENT_LIST_DIR}/backup_keeping_replies.cpp
                 LIBS corvane_backup)
endif()

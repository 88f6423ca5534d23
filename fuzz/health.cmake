# The org-health readers of what DNS servers, the status service and the CLI send.
if(TARGET corvane_health)
  corvane_fuzzer(health_replies SOURCES ${CMAKE_CURRENT_LIST_DIR}/health_replies.cpp
                 LIBS corvane_health)
endif()

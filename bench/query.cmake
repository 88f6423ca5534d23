# SOQL completion on a long query (target: under 1 ms per call).
if(TARGET corvane_query)
  add_executable(soql_completion_bench ${CMAKE_CURRENT_LIST_DIR}/soql_completion_bench.cpp)
  target_link_libraries(soql_completion_bench PRIVATE corvane_query benchmark::benchmark)
endif()

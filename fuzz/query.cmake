# The SOQL scanner and completion on any bytes: they must never fail or throw.
if(TARGET corvane_query)
  corvane_fuzzer(soql_completion SOURCES ${CMAKE_CURRENT_LIST_DIR}/soql_completion.cpp
                 LIBS corvane_query)
endif()

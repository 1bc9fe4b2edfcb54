list(APPEND FERROVAN_TEST_SOURCES
  detail/dtlbuilder.cpp
  detail/dtldump_test.cpp
  detail/dtlread_test.cpp
  detail/format_test.cpp
)

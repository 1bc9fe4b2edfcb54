list(APPEND FERROVAN_TEST_SOURCES
  detail/compress_test.cpp
  detail/dtlbuilder.cpp
  detail/dtldump_test.cpp
  detail/dtlread_test.cpp
  detail/writer_test.cpp
)

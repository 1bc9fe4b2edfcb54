list(APPEND FERROVAN_TEST_SOURCES
  detail/blockwalk_test.cpp
  detail/compress_test.cpp
  detail/hardlinks_test.cpp
  detail/writer_test.cpp
)

list(APPEND FERROVAN_TEST_SOURCES)
# Closing, compression and decompression of the detail file.
list(APPEND FERROVAN_TEST_SOURCES
  detail/compress_test.cpp
  detail/dtlclose_test.cpp
)

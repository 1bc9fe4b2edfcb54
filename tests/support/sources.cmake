list(APPEND FERROVAN_TEST_SOURCES
  support/numfmt_test.cpp
  support/utf8_test.cpp
)

list(APPEND FERROVAN_TEST_SOURCES
  log/log_test.cpp
)

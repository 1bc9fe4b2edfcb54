list(APPEND FERROVAN_TEST_SOURCES
  config/configfile_test.cpp
  config/templates_test.cpp
)

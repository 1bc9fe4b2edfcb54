list(APPEND FERROVAN_TEST_SOURCES
  config/config_run_test.cpp
  config/configfile_test.cpp
  config/templates_test.cpp
)

list(APPEND FERROVAN_TEST_SOURCES driver/options_test.cpp driver/run_test.cpp driver/saferun_test.cpp)

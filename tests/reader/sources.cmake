list(APPEND FERROVAN_TEST_SOURCES
  reader/browse_test.cpp
  reader/commands_test.cpp
  reader/dtldump_test.cpp
  reader/dtlpipe_test.cpp
  reader/dtlread_test.cpp
  reader/files_test.cpp
  reader/html_test.cpp
  reader/multiscan_test.cpp
  reader/report_test.cpp
  reader/scantree.cpp
  reader/textout_test.cpp
)

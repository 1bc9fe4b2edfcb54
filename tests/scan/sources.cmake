list(APPEND FERROVAN_TEST_SOURCES)
# Access paths, forced recall, and the per-root lines of the log.
list(APPEND FERROVAN_TEST_SOURCES
  scan/accesspath_test.cpp
  scan/recall_test.cpp
  scan/totals_test.cpp
)

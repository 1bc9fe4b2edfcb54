list(APPEND FERROVAN_TEST_SOURCES)
# Access paths and forced recall.
list(APPEND FERROVAN_TEST_SOURCES
  scan/accesspath_test.cpp
  scan/recall_test.cpp
)

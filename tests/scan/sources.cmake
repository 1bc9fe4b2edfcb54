# The walk end to end, the owner table, access paths, forced recall, and the per-root lines
# of the log.
list(APPEND FERROVAN_TEST_SOURCES
  scan/accesspath_test.cpp
  scan/dispatch_test.cpp
  scan/idtable_test.cpp
  scan/progress_test.cpp
  scan/readahead_test.cpp
  scan/recall_test.cpp
  scan/totals_test.cpp
  scan/walk_test.cpp
)

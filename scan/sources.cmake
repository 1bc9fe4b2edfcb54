list(APPEND FERROVAN_CORE_SOURCES)
# The walk, the file record, the owner table, access paths, forced recall,
# and the per-root lines of the log.
list(APPEND FERROVAN_CORE_SOURCES
  scan/accesspath.cpp
  scan/dispatch.cpp
  scan/idtable.cpp
  scan/progress.cpp
  scan/readahead.cpp
  scan/recall.cpp
  scan/totals.cpp
  scan/walk.cpp
)

list(APPEND FERROVAN_CORE_SOURCES)
# Access paths, forced recall, and the per-root lines of the log.
list(APPEND FERROVAN_CORE_SOURCES
  scan/accesspath.cpp
  scan/recall.cpp
  scan/totals.cpp
)

list(APPEND FERROVAN_CORE_SOURCES)
# Access paths and forced recall.
list(APPEND FERROVAN_CORE_SOURCES
  scan/accesspath.cpp
  scan/recall.cpp
)

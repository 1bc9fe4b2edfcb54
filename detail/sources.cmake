list(APPEND FERROVAN_CORE_SOURCES
  detail/dtlread.cpp
  detail/format.cpp
)

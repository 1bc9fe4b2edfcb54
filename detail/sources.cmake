list(APPEND FERROVAN_CORE_SOURCES
  detail/compress.cpp
  detail/dtlclose.cpp
  detail/dtlread.cpp
  detail/format.cpp
  detail/writer.cpp
)

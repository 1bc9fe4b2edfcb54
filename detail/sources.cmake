list(APPEND FERROVAN_CORE_SOURCES
  detail/compress.cpp
  detail/dtlclose.cpp
  detail/format.cpp
  detail/writer.cpp
)

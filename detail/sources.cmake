list(APPEND FERROVAN_CORE_SOURCES
  detail/blockwalk.cpp
  detail/compress.cpp
  detail/dtlfile.cpp
  detail/format.cpp
  detail/hardlinks.cpp
  detail/writer.cpp
)

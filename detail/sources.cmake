list(APPEND FERROVAN_CORE_SOURCES)
# Closing, compression and decompression of the detail file.
list(APPEND FERROVAN_CORE_SOURCES
  detail/compress.cpp
  detail/dtlclose.cpp
)

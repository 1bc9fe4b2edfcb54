list(APPEND FERROVAN_CORE_SOURCES
  support/byteorder.cpp
  support/helpers.cpp
  support/memory.cpp
  support/numfmt.cpp
  support/termwidth.cpp
  support/threads.cpp
  support/utf8.cpp
)

# The detail-file reader as a library for dtldump, the tests, the fuzz target
# and the benchmarks; it reads what the core library writes.
set(FERROVAN_READER_SOURCES
  reader/dtlinput.cpp
  reader/dtlread.cpp
)

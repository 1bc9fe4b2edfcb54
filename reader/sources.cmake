# The detail-file reader as a library for dtldump, the tests, the fuzz targets
# and the benchmarks; it reads what the core library writes. The report
# figures (report, diff) are apart from their printing (reportprint,
# ageprint, diffprint), which the tool's commands use; only the tool's main,
# reader/dtldump.cpp, stays out.
set(FERROVAN_READER_SOURCES
  reader/ageprint.cpp
  reader/commands.cpp
  reader/diff.cpp
  reader/diffprint.cpp
  reader/dtlinput.cpp
  reader/dtlpipe.cpp
  reader/dtlread.cpp
  reader/dump.cpp
  reader/export.cpp
  reader/report.cpp
  reader/reportprint.cpp
  reader/textout.cpp
)

# The detail-file reader as a library for dtldump, the tests, the fuzz targets
# and the benchmarks; it reads what the core library writes. The report
# figures (report, diff) are apart from their printing (reportprint,
# ageprint, diffprint), which the tool's commands use; only the tool's main,
# reader/dtldump.cpp, stays out.
set(FERROVAN_READER_SOURCES
  reader/ageprint.cpp
  reader/browsescreen.cpp
  reader/browsetree.cpp
  reader/commands.cpp
  reader/diff.cpp
  reader/diffprint.cpp
  reader/dtlinput.cpp
  reader/dtlpipe.cpp
  reader/dtlread.cpp
  reader/dump.cpp
  reader/export.cpp
  reader/fileprint.cpp
  reader/history.cpp
  reader/htmlpage.cpp
  reader/multiscan.cpp
  reader/report.cpp
  reader/reportprint.cpp
  reader/textout.cpp
  reader/treemap.cpp
  reader/trend.cpp
)

# The HTML report's page, style sheet and script stay files of their own in
# reader/html/, to be read and checked as what they are; the build carries
# them into the program as string constants (reader/htmlassets.h).
set(FERROVAN_HTML_ASSETS
  ${CMAKE_SOURCE_DIR}/reader/html/report.html.in
  ${CMAKE_SOURCE_DIR}/reader/html/report.css
  ${CMAKE_SOURCE_DIR}/reader/html/report.js
)
add_custom_command(
  OUTPUT ${CMAKE_BINARY_DIR}/generated/reader/htmlassets.h
  COMMAND ${CMAKE_COMMAND} -DOUTPUT=${CMAKE_BINARY_DIR}/generated/reader/htmlassets.h
          -DTEMPLATE=${CMAKE_SOURCE_DIR}/reader/html/report.html.in -DSTYLE=${CMAKE_SOURCE_DIR}/reader/html/report.css
          -DSCRIPT=${CMAKE_SOURCE_DIR}/reader/html/report.js -P ${CMAKE_SOURCE_DIR}/reader/html/embed.cmake
  DEPENDS ${FERROVAN_HTML_ASSETS} ${CMAKE_SOURCE_DIR}/reader/html/embed.cmake
  COMMENT "Carrying the HTML report's page, style sheet and script into the program"
  VERBATIM)
list(APPEND FERROVAN_READER_SOURCES ${CMAKE_BINARY_DIR}/generated/reader/htmlassets.h)

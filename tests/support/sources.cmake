list(APPEND FERROVAN_TEST_SOURCES
  support/dtlbuilder.cpp
  support/helpers_test.cpp
  support/memory_test.cpp
  support/numfmt_test.cpp
  support/termwidth_test.cpp
  support/treebuilder.cpp
  support/utf8_test.cpp
)

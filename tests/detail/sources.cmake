list(APPEND FERROVAN_TEST_SOURCES
  detail/dtlbuilder.cpp
  detail/dtlread_test.cpp
)

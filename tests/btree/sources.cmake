list(APPEND FERROVAN_TEST_SOURCES
  btree/model_test.cpp
  btree/nodes_test.cpp
)

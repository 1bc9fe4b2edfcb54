list(APPEND FERROVAN_CORE_SOURCES
  btree/nodes.cpp
  btree/plant.cpp
  btree/save.cpp
  btree/search.cpp
  btree/walk.cpp
)

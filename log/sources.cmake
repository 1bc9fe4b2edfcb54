list(APPEND FERROVAN_CORE_SOURCES log/log.cpp log/ending.cpp)

list(APPEND FERROVAN_CORE_SOURCES
  driver/globals.cpp
  driver/options.cpp
  driver/run.cpp
  driver/usage.cpp
)

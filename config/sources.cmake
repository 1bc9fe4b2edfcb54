list(APPEND FERROVAN_CORE_SOURCES
  config/configfile.cpp
  config/roots.cpp
  config/templates.cpp
)

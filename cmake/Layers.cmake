# Includes go one way. Every build checks that, so that a wrong include fails at once.
add_custom_target(check_layers ALL
  COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${CMAKE_SOURCE_DIR} -P ${CMAKE_SOURCE_DIR}/cmake/CheckLayers.cmake
  VERBATIM)

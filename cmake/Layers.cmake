# Includes go one way. Checked in every build, so that a wrong include is an error and not a habit.
add_custom_target(check_layers ALL
  COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${CMAKE_SOURCE_DIR} -P ${CMAKE_SOURCE_DIR}/cmake/CheckLayers.cmake
  VERBATIM)

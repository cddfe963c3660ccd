# The version the host programs print with --version: the project's version and, when the
# sources are a git checkout, the commit they were built from. The commit is looked up on
# every build (a cheap script), and the generated source only changes, and only then gets
# recompiled, when the text does.
set(OTA_VERSION_SOURCE ${CMAKE_BINARY_DIR}/generated/ota_version.cpp)
add_custom_target(ota_version_text
  COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${CMAKE_SOURCE_DIR} -DVERSION=${PROJECT_VERSION}
          -DOUTPUT=${OTA_VERSION_SOURCE} -P ${CMAKE_SOURCE_DIR}/cmake/write_version.cmake
  BYPRODUCTS ${OTA_VERSION_SOURCE}
  COMMENT "Looking up the commit for --version"
  VERBATIM)
add_library(ota_version STATIC ${OTA_VERSION_SOURCE})
add_dependencies(ota_version ota_version_text)
target_include_directories(ota_version PUBLIC ${CMAKE_SOURCE_DIR}/tools/common)

# Install layout for developers: pkg-config file, CMake package, D-Bus data.
include(CMakePackageConfigHelpers)

# Relocatable: the prefix is found from where the .pc file lies.
file(RELATIVE_PATH KOVA_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" KOVA_PC_TO_PREFIX "${KOVA_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/kova-api.pc.in ${PROJECT_BINARY_DIR}/kova-api.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kova-api.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(KOVA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KovaApi)
install(EXPORT KovaApiTargets NAMESPACE KovaApi:: DESTINATION ${KOVA_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KovaApiConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KovaApiConfig.cmake INSTALL_DESTINATION ${KOVA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KovaApiConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KovaApiConfig.cmake ${PROJECT_BINARY_DIR}/KovaApiConfigVersion.cmake
  DESTINATION ${KOVA_CMAKE_DIR})

install(FILES ${PROJECT_SOURCE_DIR}/data/org.zelta.tv.system.resource.xml
  DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces)

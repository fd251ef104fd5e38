# What an application needs to embed the module, installed beside it: the SDK headers and
# fontrix_host.h in include/fontrix, the CMake package (find_package(Fontrix): Fontrix::host,
# Fontrix_MODULE) and the pkg-config file fontrix.pc. Both are relocatable: they find the
# prefix from where they are installed, so `cmake --install --prefix` may put them anywhere.
include(CMakePackageConfigHelpers)

file(GLOB FONTRIX_SDK_HEADERS ${PROJECT_SOURCE_DIR}/sdk/*.h)
install(FILES ${FONTRIX_SDK_HEADERS} DESTINATION include/fontrix)

set(FONTRIX_CMAKE_DIR lib/cmake/Fontrix)
install(EXPORT FontrixTargets NAMESPACE Fontrix:: DESTINATION ${FONTRIX_CMAKE_DIR})
set(FONTRIX_MODULE_FILE lib/libfontrix.so)
set(FONTRIX_DATA_DIR share/fontrix)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/FontrixConfig.cmake.in
  ${PROJECT_BINARY_DIR}/FontrixConfig.cmake INSTALL_DESTINATION ${FONTRIX_CMAKE_DIR}
  PATH_VARS FONTRIX_MODULE_FILE FONTRIX_DATA_DIR)
# Before 1.0 a minor version may change the C interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/FontrixConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/FontrixConfig.cmake ${PROJECT_BINARY_DIR}/FontrixConfigVersion.cmake
        DESTINATION ${FONTRIX_CMAKE_DIR})

configure_file(${PROJECT_SOURCE_DIR}/cmake/fontrix.pc.in ${PROJECT_BINARY_DIR}/fontrix.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/fontrix.pc DESTINATION lib/pkgconfig)

# Installed layout beyond the files themselves: a CMake package, a
# pkg-config file, and Debian packages built by CPack.  Components: "lib"
# (the shared library), "dev" (headers and build metadata), "tool" (tovad
# and its default model).
include(CMakePackageConfigHelpers)
set(TOVAD_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tovadmod)

install(EXPORT tovadmodTargets NAMESPACE tovadmod:: DESTINATION ${TOVAD_CMAKE_DIR}
        COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tovadmodConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tovadmodConfig.cmake INSTALL_DESTINATION ${TOVAD_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tovadmodConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tovadmodConfig.cmake
              ${PROJECT_BINARY_DIR}/tovadmodConfigVersion.cmake
        DESTINATION ${TOVAD_CMAKE_DIR} COMPONENT dev)

# The prefix is found from where the file lies, so `--prefix` and a
# moved tree both work.
file(RELATIVE_PATH TOVAD_PC_TO_PREFIX /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
configure_file(${PROJECT_SOURCE_DIR}/cmake/tovadmod.pc.in ${PROJECT_BINARY_DIR}/tovadmod.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tovadmod.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

set(CPACK_PACKAGE_NAME tovadmod)
set(CPACK_PACKAGE_VENDOR "libtovadmod developers")
set(CPACK_PACKAGE_CONTACT "libtovadmod developers <tovadmod@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "voice activity detection with a small neural network")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL lib dev tool)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_LIB_PACKAGE_NAME libtovadmod0)
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIB_PACKAGE_DEPENDS "libcjson1, libstdc++6, libc6")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtovadmod-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libtovadmod0 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME tovad)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libtovadmod0 (= ${PROJECT_VERSION}), libsndfile1, libsoxr0")
include(CPack)

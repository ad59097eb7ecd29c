# Installation, with the CMake package crrecord and crrecord.pc for pkg-config. All installed paths are relative, so the
# installed tree may be moved.

include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/crrecord)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS crrecord EXPORT crrecord-targets)
install(DIRECTORY include/crrecord DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(FILES README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} PATTERN Doxyfile EXCLUDE)
install(FILES formats/crrecord.hexpat formats/crrecord.ksy formats/crrecord.schema.json
    DESTINATION ${CMAKE_INSTALL_DATADIR}/crrecord)

if(TARGET crrecord_tool_installed)
    install(TARGETS crrecord_tool_installed)
endif()
if(TARGET crrecord_manual)
    set(manual_dir ${CMAKE_CURRENT_BINARY_DIR}/tools/manual)
    install(DIRECTORY ${manual_dir}/man1 DESTINATION ${CMAKE_INSTALL_MANDIR})
    install(DIRECTORY ${manual_dir}/completions DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion)
endif()

# The public headers include headers of Boost. Users of the static library must also link its dependencies.
set(package_dependencies "find_dependency(Boost ${CRRECORD_BOOST_VERSION})")
get_target_property(library_type crrecord TYPE)
if(library_type STREQUAL "STATIC_LIBRARY")
    string(APPEND package_dependencies "
find_dependency(OpenSSL ${CRRECORD_OPENSSL_VERSION} COMPONENTS Crypto)
find_dependency(PkgConfig)
pkg_check_modules(libdeflate QUIET IMPORTED_TARGET libdeflate)
if(NOT libdeflate_FOUND)
    set(crrecord_FOUND FALSE)
    set(crrecord_NOT_FOUND_MESSAGE \"libdeflate is missing\")
    return()
endif()")
    set(pkgconfig_dependencies "libcrypto >= ${CRRECORD_OPENSSL_VERSION}, libdeflate")
else()
    # For a static library installed beside the shared one. The shared library does not need pkg-config of others.
    set(pkgconfig_libraries "-lcrypto -ldeflate")
endif()

install(EXPORT crrecord-targets NAMESPACE crrecord:: DESTINATION ${package_dir})
configure_package_config_file(cmake/crrecord-config.cmake.in crrecord-config.cmake
    INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(crrecord-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/crrecord-config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/crrecord-config-version.cmake
    DESTINATION ${package_dir})

set(pkgconfig_full_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${pkgconfig_full_dir} OUTPUT_VARIABLE pkgconfig_to_prefix)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${pkgconfig_full_dir} OUTPUT_VARIABLE pkgconfig_to_libdir)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY ${pkgconfig_full_dir} OUTPUT_VARIABLE pkgconfig_to_includedir)
configure_file(cmake/crrecord.pc.in crrecord.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/crrecord.pc DESTINATION ${pkgconfig_dir})

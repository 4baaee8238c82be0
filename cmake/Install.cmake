# Library, headers, CMake package, pkg-config file and Python module. All paths in them are relative to their own
# location, so that the installed tree can be moved. A component has the name of the Debian package with its files.

include(CMakePackageConfigHelpers)

set(ESG_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/esg-client")

install(TARGETS esg-client EXPORT esg-client
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libesg-client${PROJECT_VERSION_MAJOR}
  NAMELINK_COMPONENT libesg-client-dev)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/esg-client
  COMPONENT libesg-client-dev FILES_MATCHING PATTERN "*.h")
install(FILES platform/ESGExport.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/esg-client COMPONENT libesg-client-dev)
install(FILES ${ESG_IPCS_HEADERS}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/esg-client/IPCS COMPONENT libesg-client-dev)

# The path that all of Debian's interpreters search.
set(ESG_PYTHON_DIR "lib/python3/dist-packages" CACHE STRING
  "The folder of the Python module, below the prefix")
install(FILES python/esg_client.py DESTINATION ${ESG_PYTHON_DIR} COMPONENT python3-esg-client)

install(EXPORT esg-client NAMESPACE ESG:: FILE esg-client-targets.cmake
  DESTINATION ${ESG_CMAKE_DIR} COMPONENT libesg-client-dev)
configure_package_config_file(cmake/esg-client-config.cmake.in esg-client-config.cmake
  INSTALL_DESTINATION ${ESG_CMAKE_DIR}
  NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(esg-client-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/esg-client-config.cmake ${PROJECT_BINARY_DIR}/esg-client-config-version.cmake
  DESTINATION ${ESG_CMAKE_DIR} COMPONENT libesg-client-dev)

# Both folders, relative to that of the .pc file.
set(ESG_PC_DIR "/${CMAKE_INSTALL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH ESG_PC_PREFIX "${ESG_PC_DIR}" "/")
string(REGEX REPLACE "/$" "" ESG_PC_PREFIX "${ESG_PC_PREFIX}")
configure_file(cmake/esg-client.pc.in esg-client.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/esg-client.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT libesg-client-dev)

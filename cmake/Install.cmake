# Library, headers, CMake package and pkg-config file. All paths in them are relative to where they lie,
# so that the installed tree can be moved.

include(CMakePackageConfigHelpers)

set(ESG_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/esg-client")

install(TARGETS esg-client EXPORT esg-client
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/esg-client
  COMPONENT Development FILES_MATCHING PATTERN "*.h")
foreach(class IN ITEMS
    ESGMessageBuffer EIIPCConnection ECIPCConnection ECIPCManager ECIPCClient IESGCallListener
    ECNativeConnection)
  install(FILES include_internal/IPCS/${class}.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/esg-client/IPCS COMPONENT Development)
endforeach()

install(EXPORT esg-client NAMESPACE ESG:: FILE esg-client-targets.cmake
  DESTINATION ${ESG_CMAKE_DIR} COMPONENT Development)
configure_package_config_file(cmake/esg-client-config.cmake.in esg-client-config.cmake
  INSTALL_DESTINATION ${ESG_CMAKE_DIR}
  NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(esg-client-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/esg-client-config.cmake ${PROJECT_BINARY_DIR}/esg-client-config-version.cmake
  DESTINATION ${ESG_CMAKE_DIR} COMPONENT Development)

# Both folders relative to the one of the .pc file.
set(ESG_PC_DIR "/${CMAKE_INSTALL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH ESG_PC_PREFIX "${ESG_PC_DIR}" "/")
configure_file(cmake/esg-client.pc.in esg-client.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/esg-client.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

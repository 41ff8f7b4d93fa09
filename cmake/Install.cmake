# `cmake --install` puts corvd-sim, the four libraries and their headers under the prefix, with a
# CMake package (find_package(InterfaceRouteInfo CONFIG), targets InterfaceRouteInfo::fwk_module
# and the layers below it) and a pkg-config file (interfacerouteinfo.pc).
include(CMakePackageConfigHelpers)

set(IRI_LAYERS fwk_framework fwk_daemon fwk_model fwk_module)
install(TARGETS ${IRI_LAYERS} EXPORT InterfaceRouteInfoTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS corvd-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/fwk/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/fwk
        FILES_MATCHING PATTERN "*.h")

set(IRI_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/InterfaceRouteInfo)
install(EXPORT InterfaceRouteInfoTargets NAMESPACE InterfaceRouteInfo::
        DESTINATION ${IRI_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/InterfaceRouteInfoConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/InterfaceRouteInfoConfig.cmake
                              INSTALL_DESTINATION ${IRI_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/InterfaceRouteInfoConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/InterfaceRouteInfoConfig.cmake
              ${PROJECT_BINARY_DIR}/InterfaceRouteInfoConfigVersion.cmake
        DESTINATION ${IRI_CMAKE_DIR})

# The pkg-config file finds its prefix from where it is installed, so `--install --prefix`
# elsewhere works too.
file(RELATIVE_PATH IRI_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/interfacerouteinfo.pc.in
               ${PROJECT_BINARY_DIR}/interfacerouteinfo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/interfacerouteinfo.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

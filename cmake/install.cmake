# What `cmake --install` puts down: the library with its headers, found by CMake's find_package(varn)
# and by pkg-config, and the tool.
include(CMakePackageConfigHelpers)

set(varn_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/varn)

install(TARGETS varn EXPORT varnTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES include/varn/sttl.h include/varn/tran.h include/varn/tran.hpp
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/varn)
install(EXPORT varnTargets NAMESPACE varn:: DESTINATION ${varn_package_dir})
if(VARN_TOOL)
  install(TARGETS varn-tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(TARGETS varn-functions LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

configure_package_config_file(cmake/varnConfig.cmake.in ${PROJECT_BINARY_DIR}/varnConfig.cmake
                              INSTALL_DESTINATION ${varn_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/varnConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/varnConfig.cmake ${PROJECT_BINARY_DIR}/varnConfigVersion.cmake
        DESTINATION ${varn_package_dir})

# Paths count from where the file lies, so that `cmake --install --prefix` may put it anywhere.
file(RELATIVE_PATH varn_pc_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/varn.pc.in ${PROJECT_BINARY_DIR}/varn.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/varn.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

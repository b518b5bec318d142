# What stands in an installed tree beside the targets themselves: the CMake package and the pkg-config file.
include(CMakePackageConfigHelpers)

get_property(frameworks GLOBAL PROPERTY OKV_FRAMEWORKS)
install(TARGETS ${frameworks} EXPORT OKVDataManager FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/OKVDataManager)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/OKVDataManagerConfig.cmake.in
    ${PROJECT_BINARY_DIR}/OKVDataManagerConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/OKVDataManagerConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/OKVDataManagerConfig.cmake ${PROJECT_BINARY_DIR}/OKVDataManagerConfigVersion.cmake
    DESTINATION ${package_dir})
install(EXPORT OKVDataManager NAMESPACE okv:: FILE OKVDataManagerTargets.cmake DESTINATION ${package_dir})

# The file finds its prefix from its own place, so that the tree may be moved.
set(OKV_PC_LIBDIR ${CMAKE_INSTALL_LIBDIR})
file(RELATIVE_PATH pc_up /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" pc_up ${pc_up})
file(READ ${PROJECT_SOURCE_DIR}/cmake/okvdatamanager.pc.in pc_text)
string(REPLACE "\${pcfiledir}/../.." "\${pcfiledir}/${pc_up}" pc_text "${pc_text}")
file(WRITE ${PROJECT_BINARY_DIR}/okvdatamanager.pc.in "${pc_text}")
configure_file(${PROJECT_BINARY_DIR}/okvdatamanager.pc.in ${PROJECT_BINARY_DIR}/okvdatamanager.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/okvdatamanager.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

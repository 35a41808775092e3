# What `cmake --install` puts where: the library and the sample hosts by component, the package file
# for CMake, the one for pkg-config, and a target that takes all of it away again.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS KelCommon EXPORT KelCommonTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
        NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/KelCommon)
install(FILES ${KEL_PUBLIC_HEADERS}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/KelCommon/common COMPONENT development)
if(KEL_BUILD_EXAMPLES)
    install(TARGETS edge_host minimal_host
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    # Below /usr the loader finds the library by itself; elsewhere it looks beside the host.
    if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
        set_target_properties(edge_host minimal_host PROPERTIES
            INSTALL_RPATH $ORIGIN/../${CMAKE_INSTALL_LIBDIR})
    endif()
    install(DIRECTORY packaging/systemd packaging/logrotate
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kelcommon-tools/examples COMPONENT tools)
endif()

set(KEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KelCommon)
install(EXPORT KelCommonTargets NAMESPACE KelCommon::
    DESTINATION ${KEL_CMAKE_DIR} COMPONENT development)
configure_package_config_file(cmake/KelCommonConfig.cmake.in KelCommonConfig.cmake
    INSTALL_DESTINATION ${KEL_CMAKE_DIR})
write_basic_package_version_file(KelCommonConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/KelCommonConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/KelCommonConfigVersion.cmake
    cmake/KelCommonDependencies.cmake
    DESTINATION ${KEL_CMAKE_DIR} COMPONENT development)

# POCO and Paho bring no pkg-config files that ours could require, so it names their libraries and
# folders itself: those that this build found.
set(pc_libs "")
set(pc_cflags "")
foreach(dependency IN LISTS KEL_DEPENDENCIES)
    get_target_property(file ${dependency} LOCATION)
    get_target_property(include_dirs ${dependency} INTERFACE_INCLUDE_DIRECTORIES)
    if(file)
        get_filename_component(directory ${file} DIRECTORY)
        get_filename_component(name ${file} NAME)
        string(REGEX REPLACE "^(lib)?([^.]+)\\..*$" "\\2" name ${name})
        list(APPEND pc_libs -L${directory} -l${name})
    endif()
    if(include_dirs)
        list(TRANSFORM include_dirs PREPEND -I)
        list(APPEND pc_cflags ${include_dirs})
    endif()
endforeach()
list(REMOVE_DUPLICATES pc_libs)
list(REMOVE_DUPLICATES pc_cflags)
# The folders that the compiler searches by itself are left out.
foreach(directory IN LISTS CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES)
    list(REMOVE_ITEM pc_cflags -I${directory})
endforeach()
foreach(directory IN LISTS CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
    list(REMOVE_ITEM pc_libs -L${directory})
endforeach()
list(JOIN pc_libs " " KEL_PC_LIBS)
list(JOIN pc_cflags " " KEL_PC_CFLAGS)
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH KEL_PC_PREFIX /${pc_dir} /)
configure_file(cmake/KelCommon.pc.in KelCommon.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KelCommon.pc
    DESTINATION ${pc_dir} COMPONENT development)

if(PROJECT_IS_TOP_LEVEL)
    add_custom_target(uninstall
        COMMAND ${CMAKE_COMMAND} -DBUILD=${CMAKE_CURRENT_BINARY_DIR}
            -P ${CMAKE_CURRENT_LIST_DIR}/uninstall.cmake
        VERBATIM)
endif()

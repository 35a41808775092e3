# Never run: written from the tool's documentation. For an overlay of ports in a copy of the sources:
#   vcpkg install kelcommon --overlay-ports=packaging/vcpkg
vcpkg_check_linkage(ONLY_DYNAMIC_LIBRARY)

get_filename_component(source ${CMAKE_CURRENT_LIST_DIR}/../../.. ABSOLUTE)
vcpkg_cmake_configure(SOURCE_PATH ${source})
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(PACKAGE_NAME KelCommon CONFIG_PATH lib/cmake/KelCommon)
vcpkg_fixup_pkgconfig()
file(REMOVE_RECURSE ${CURRENT_PACKAGES_DIR}/debug/include ${CURRENT_PACKAGES_DIR}/debug/share)
file(INSTALL ${source}/packaging/no-license.txt
    DESTINATION ${CURRENT_PACKAGES_DIR}/share/${PORT} RENAME copyright)

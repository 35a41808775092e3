# What CPack makes: .deb packages from a build for the prefix /usr (preset `package`), a .zip on
# Windows, a .tar.gz otherwise. scripts/package makes the packages of this system.
set(KEL_PACKAGE_CONTACT "KelCommon maintainers <kelcommon@example.org>"
    CACHE STRING "Who answers for the packages; whoever publishes them sets it")

set(CPACK_PACKAGE_CONTACT "${KEL_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Runtime library of edge host services over POCO and MQTT")
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
if(WIN32)
    set(CPACK_GENERATOR ZIP)
elseif(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(CPACK_GENERATOR DEB)
else()
    set(CPACK_GENERATOR TGZ)
endif()

# The licence is the owner's to choose: a file LICENSE is taken up here and by the packages.
set(KEL_LICENSE_FILE ${CMAKE_CURRENT_SOURCE_DIR}/LICENSE)
if(NOT EXISTS ${KEL_LICENSE_FILE})
    set(KEL_LICENSE_FILE ${CMAKE_CURRENT_SOURCE_DIR}/packaging/no-license.txt)
endif()

# --- Debian -------------------------------------------------------------------------------------

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CURRENT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

get_target_property(soversion KelCommon SOVERSION)
set(runtime libkelcommon${soversion})
set(exactly_runtime "${runtime} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
"Logging, configuration, MQTT messaging, HTTP client and web API, web hooks,
thread pools and notifications for the service processes on an edge host.
This package holds the shared library.")

# Users compile against the headers of POCO and Paho too.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkelcommon-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${exactly_runtime}, libpoco-dev (>= 1.11), libpaho-mqtt-dev (>= 1.3.12)")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "Headers, and the files by which CMake and pkg-config find the library.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kelcommon-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${exactly_runtime}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "The sample hosts, and examples of how a host is deployed as a service.")

set(CPACK_COMPONENTS_ALL runtime development)
if(KEL_BUILD_EXAMPLES)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

# Each package holds the last entry of the changes, and the licence.
if(CPACK_GENERATOR STREQUAL "DEB")
    string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
    file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/changelog
        "kelcommon (${PROJECT_VERSION}) stable; urgency=medium\n\n"
        "  * Release ${PROJECT_VERSION}; CHANGELOG.md in the sources says what is new.\n\n"
        " -- ${KEL_PACKAGE_CONTACT}  ${date}\n")
    execute_process(COMMAND gzip -9nf ${CMAKE_CURRENT_BINARY_DIR}/changelog
        COMMAND_ERROR_IS_FATAL ANY)
    foreach(component IN LISTS CPACK_COMPONENTS_ALL)
        string(TOUPPER ${component} upper)
        set(folder ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
        install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
            DESTINATION ${folder} COMPONENT ${component})
        install(FILES ${KEL_LICENSE_FILE}
            DESTINATION ${folder} RENAME copyright COMPONENT ${component})
    endforeach()
else()
    install(FILES CHANGELOG.md ${KEL_LICENSE_FILE}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kelcommon COMPONENT development)
endif()

include(CPack)

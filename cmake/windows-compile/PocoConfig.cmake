# Stands in for POCO and Paho for Windows where only their headers for this system are installed:
# enough to compile every unit for Windows, nothing to link. Used by scripts/check-windows-compile.
#
# The headers are linked into a folder of their own, since the folder they are installed in holds
# this system's C library too. POCO's Windows code spells two of the toolchain's headers in another
# letter case. SYSTEM suppresses the warnings of these headers, since ours are errors.
set(POCO_FOR_COMPILE ${CMAKE_BINARY_DIR}/headers)

find_path(POCO_HEADERS Poco/Version.h NO_CMAKE_FIND_ROOT_PATH PATHS /usr/include REQUIRED)
find_path(PAHO_HEADERS MQTTClient.h NO_CMAKE_FIND_ROOT_PATH PATHS /usr/include REQUIRED)
file(GLOB paho_headers ${PAHO_HEADERS}/MQTT*.h)
file(MAKE_DIRECTORY ${POCO_FOR_COMPILE})
foreach(header ${POCO_HEADERS}/Poco ${paho_headers})
    get_filename_component(name ${header} NAME)
    file(CREATE_LINK ${header} ${POCO_FOR_COMPILE}/${name} SYMBOLIC)
endforeach()
foreach(name Winsock2.h Iphlpapi.h)
    string(TOLOWER ${name} installed)
    file(WRITE ${POCO_FOR_COMPILE}/${name} "#include <${installed}>\n")
endforeach()

foreach(target Poco::Foundation Poco::JSON Poco::Util Poco::Net eclipse-paho-mqtt-c::paho-mqtt3c)
    add_library(${target} INTERFACE IMPORTED)
    target_include_directories(${target} SYSTEM INTERFACE ${POCO_FOR_COMPILE})
    target_compile_definitions(${target} INTERFACE POCO_DLL)
endforeach()

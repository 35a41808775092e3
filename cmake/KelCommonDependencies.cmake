# POCO and the Paho MQTT C client, for this build and for installed packages alike.
include(CMakeFindDependencyMacro)

find_dependency(Threads)
find_dependency(Poco 1.11 COMPONENTS Net Util JSON Foundation)

# Some systems ship Paho without a package file, or with one that names files they leave out.
find_package(eclipse-paho-mqtt-c CONFIG QUIET)
if(NOT TARGET eclipse-paho-mqtt-c::paho-mqtt3c)
    find_path(PAHO_MQTT3C_INCLUDE_DIR MQTTClient.h)
    find_library(PAHO_MQTT3C_LIBRARY NAMES paho-mqtt3c)
    if(NOT PAHO_MQTT3C_INCLUDE_DIR OR NOT PAHO_MQTT3C_LIBRARY)
        message(FATAL_ERROR "Paho MQTT C client not found: MQTTClient.h and library paho-mqtt3c")
    endif()
    add_library(eclipse-paho-mqtt-c::paho-mqtt3c UNKNOWN IMPORTED)
    set_target_properties(eclipse-paho-mqtt-c::paho-mqtt3c PROPERTIES
        IMPORTED_LOCATION ${PAHO_MQTT3C_LIBRARY}
        INTERFACE_INCLUDE_DIRECTORIES ${PAHO_MQTT3C_INCLUDE_DIR})
endif()

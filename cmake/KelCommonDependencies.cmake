# POCO and the Paho MQTT C client, for this build and for installed packages alike. What the library
# links stands here once; the package file and the pkg-config file are made from it.
set(KEL_POCO_COMPONENTS Net Util JSON Foundation)
set(KEL_PAHO_LIBRARY paho-mqtt3c)

include(CMakeFindDependencyMacro)
find_dependency(Threads)
find_dependency(Poco 1.11 COMPONENTS ${KEL_POCO_COMPONENTS})

# Some systems ship Paho without a package file, or with one that names files they leave out.
find_package(eclipse-paho-mqtt-c CONFIG QUIET)
if(NOT TARGET eclipse-paho-mqtt-c::${KEL_PAHO_LIBRARY})
    find_path(PAHO_INCLUDE_DIR MQTTClient.h)
    find_library(PAHO_LIBRARY NAMES ${KEL_PAHO_LIBRARY})
    if(NOT PAHO_INCLUDE_DIR OR NOT PAHO_LIBRARY)
        message(FATAL_ERROR "Paho MQTT C client not found: MQTTClient.h and ${KEL_PAHO_LIBRARY}")
    endif()
    add_library(eclipse-paho-mqtt-c::${KEL_PAHO_LIBRARY} UNKNOWN IMPORTED)
    set_target_properties(eclipse-paho-mqtt-c::${KEL_PAHO_LIBRARY} PROPERTIES
        IMPORTED_LOCATION ${PAHO_LIBRARY}
        INTERFACE_INCLUDE_DIRECTORIES ${PAHO_INCLUDE_DIR})
endif()

set(KEL_DEPENDENCIES ${KEL_POCO_COMPONENTS})
list(TRANSFORM KEL_DEPENDENCIES PREPEND Poco::)
list(APPEND KEL_DEPENDENCIES eclipse-paho-mqtt-c::${KEL_PAHO_LIBRARY})

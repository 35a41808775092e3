# POCO and the Paho MQTT C client, for this build and for installed packages alike. Sets KEL_TLS_FOUND,
# and kel_paho to the Paho library that KEL_WITH_TLS asks for: never both, they export the same names.
include(CMakeFindDependencyMacro)

find_dependency(Threads)
find_dependency(Poco 1.11 COMPONENTS Net Util JSON Foundation)

# Some systems ship Paho without a package file, or with one that names files they leave out.
find_package(eclipse-paho-mqtt-c CONFIG QUIET)
function(kel_find_paho name)
    if(TARGET eclipse-paho-mqtt-c::${name})
        return()
    endif()
    find_path(PAHO_MQTT3C_INCLUDE_DIR MQTTClient.h)
    find_library(KEL_LIBRARY_${name} NAMES ${name})
    if(PAHO_MQTT3C_INCLUDE_DIR AND KEL_LIBRARY_${name})
        add_library(eclipse-paho-mqtt-c::${name} UNKNOWN IMPORTED GLOBAL)
        set_target_properties(eclipse-paho-mqtt-c::${name} PROPERTIES
            IMPORTED_LOCATION ${KEL_LIBRARY_${name}}
            INTERFACE_INCLUDE_DIRECTORIES ${PAHO_MQTT3C_INCLUDE_DIR})
    endif()
endfunction()

# POCO's NetSSL asks for OpenSSL in a way that ends the whole build where there is none.
set(KEL_TLS_FOUND OFF)
if(NOT DEFINED KEL_WITH_TLS OR KEL_WITH_TLS)
    find_package(OpenSSL 1.1.1 QUIET COMPONENTS SSL Crypto)
    if(OpenSSL_FOUND)
        find_package(Poco 1.11 QUIET COMPONENTS NetSSL)
        kel_find_paho(paho-mqtt3cs)
        if(TARGET Poco::NetSSL AND TARGET eclipse-paho-mqtt-c::paho-mqtt3cs)
            set(KEL_TLS_FOUND ON)
        endif()
    endif()
endif()
if(NOT DEFINED KEL_WITH_TLS)
    option(KEL_WITH_TLS "MQTT, HTTP client and server over TLS" ${KEL_TLS_FOUND})
endif()
if(KEL_WITH_TLS AND NOT KEL_TLS_FOUND)
    message(FATAL_ERROR "KEL_WITH_TLS needs OpenSSL 1.1.1, POCO's NetSSL and library paho-mqtt3cs")
endif()

if(KEL_WITH_TLS)
    set(kel_paho eclipse-paho-mqtt-c::paho-mqtt3cs)
else()
    set(kel_paho eclipse-paho-mqtt-c::paho-mqtt3c)
    kel_find_paho(paho-mqtt3c)
    if(NOT TARGET ${kel_paho})
        message(FATAL_ERROR "Paho MQTT C client not found: MQTTClient.h and library paho-mqtt3c")
    endif()
endif()

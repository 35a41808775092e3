# Finds POCO and the Paho MQTT C client, for this build and for hosts that use an installed package.
# KEL_DEPENDENCIES lists what the library links publicly; the package file and the pkg-config file are
# made from it. Sets KEL_TLS_FOUND too.
set(KEL_POCO_COMPONENTS Net Util JSON Foundation)

include(CMakeFindDependencyMacro)
find_dependency(Threads)
find_dependency(Poco 1.11 COMPONENTS ${KEL_POCO_COMPONENTS})

# Some systems ship Paho without a package file, or with one that names files they leave out.
find_package(eclipse-paho-mqtt-c CONFIG QUIET)
function(kel_find_paho name)
    if(TARGET eclipse-paho-mqtt-c::${name})
        return()
    endif()
    find_path(PAHO_INCLUDE_DIR MQTTClient.h)
    find_library(KEL_LIBRARY_${name} NAMES ${name})
    if(PAHO_INCLUDE_DIR AND KEL_LIBRARY_${name})
        add_library(eclipse-paho-mqtt-c::${name} UNKNOWN IMPORTED GLOBAL)
        set_target_properties(eclipse-paho-mqtt-c::${name} PROPERTIES
            IMPORTED_LOCATION ${KEL_LIBRARY_${name}}
            INTERFACE_INCLUDE_DIRECTORIES ${PAHO_INCLUDE_DIR})
    endif()
endfunction()

# OpenSSL is looked for first, because POCO's NetSSL ends the whole build where there is none.
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

# One of Paho's two libraries, never both: they export the same names.
set(KEL_PAHO_LIBRARY paho-mqtt3c)
if(KEL_WITH_TLS)
    set(KEL_PAHO_LIBRARY paho-mqtt3cs)
endif()
kel_find_paho(${KEL_PAHO_LIBRARY})
if(NOT TARGET eclipse-paho-mqtt-c::${KEL_PAHO_LIBRARY})
    message(FATAL_ERROR "Paho MQTT C client not found: MQTTClient.h and ${KEL_PAHO_LIBRARY}")
endif()

set(KEL_DEPENDENCIES ${KEL_POCO_COMPONENTS})
list(TRANSFORM KEL_DEPENDENCIES PREPEND Poco::)
list(APPEND KEL_DEPENDENCIES eclipse-paho-mqtt-c::${KEL_PAHO_LIBRARY})

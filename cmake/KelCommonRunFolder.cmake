# Copies every DLL that the executables need into their folder, so that they run where they are built:
# the ones that the library is linked to, and the runtime of a MinGW compiler.
set(runtime $<TARGET_RUNTIME_DLLS:KelCommon>)
if(KEL_WITH_TLS)
    # CMake knows OpenSSL's import libraries alone; the DLLs stand beside the folder of the headers.
    file(GLOB openssl ${OPENSSL_INCLUDE_DIR}/../bin/libssl-*.dll
                      ${OPENSSL_INCLUDE_DIR}/../bin/libcrypto-*.dll)
    list(APPEND runtime ${openssl})
endif()
if(MINGW)
    foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
                        OUTPUT_VARIABLE file OUTPUT_STRIP_TRAILING_WHITESPACE)
        if(IS_ABSOLUTE ${file})
            list(APPEND runtime ${file})
        endif()
    endforeach()
endif()
# The library itself is copied too, because the command needs at least one file.
add_custom_command(TARGET KelCommon POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E copy_if_different
            $<TARGET_FILE:KelCommon> ${runtime} ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}
    COMMAND_EXPAND_LISTS)

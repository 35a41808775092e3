# Warnings, sanitizers and the compiler cache, the same for every target of the project.
option(KEL_WERROR "Treat warnings as errors" OFF)
set(KEL_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")

find_program(KEL_CCACHE ccache)
if(KEL_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${KEL_CCACHE})
endif()

function(kel_apply_options target)
    if(MSVC)
        target_compile_options(${target} PRIVATE /W4 /utf-8 $<$<BOOL:${KEL_WERROR}>:/WX>)
    else()
        target_compile_options(${target} PRIVATE
            -Wall -Wextra -Wpedantic $<$<BOOL:${KEL_WERROR}>:-Werror>)
    endif()
    if(KEL_SANITIZE)
        # In instrumented code GCC takes variables of the standard library for uninitialised ones.
        target_compile_options(${target} PRIVATE
            $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>
            -fsanitize=${KEL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
        target_link_options(${target} PUBLIC -fsanitize=${KEL_SANITIZE})
    endif()
    if(WIN32)
        target_compile_definitions(${target} PRIVATE WIN32_LEAN_AND_MEAN NOMINMAX)
    endif()
endfunction()

# For files that hand on a reply's status as it came: POCO keeps whatever number a peer sends, such
# as 520 or 999, in an enumeration that ends below 512.
function(kel_allow_any_status)
    if(KEL_SANITIZE MATCHES "undefined")
        set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS -fno-sanitize=enum)
    endif()
endfunction()

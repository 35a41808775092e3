# Builds for Windows x64 on Linux, with the compilers of Debian's g++-mingw-w64-x86-64-posix, whose
# POSIX thread model std::thread and std::mutex need.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

# None of this system's own libraries may be found. CMAKE_PREFIX_PATH is searched too.
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32 ${CMAKE_PREFIX_PATH})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Paho's package file spells this library in another letter case, which only Windows ignores.
set(rpcrt4 /usr/x86_64-w64-mingw32/lib/librpcrt4.a)
set(other_case ${CMAKE_BINARY_DIR}/other-case)
if(EXISTS ${rpcrt4})
    file(MAKE_DIRECTORY ${other_case})
    file(CREATE_LINK ${rpcrt4} ${other_case}/libRpcRT4.a SYMBOLIC)
    set(CMAKE_EXE_LINKER_FLAGS_INIT -L${other_case})
    set(CMAKE_SHARED_LINKER_FLAGS_INIT -L${other_case})
endif()

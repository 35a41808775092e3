# Installs the build tree BUILD into WORK, builds the project in SOURCE against that and runs it.
# CXX, SANITIZE and PREFIX are the compiler, the sanitizers and the search path of the build tree.
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${ARGN}: ${result}\n${output}")
    endif()
endfunction()

if(SANITIZE)
    set(flags -DCMAKE_CXX_FLAGS=-fsanitize=${SANITIZE})
endif()
file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix)
set(ENV{CMAKE_PREFIX_PATH} ${PREFIX})
run(${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${WORK}/prefix -DCMAKE_CXX_COMPILER=${CXX} ${flags})
run(${CMAKE_COMMAND} --build ${WORK}/build)
run(${CMAKE_COMMAND} -E env XDG_CONFIG_HOME=${WORK}/home XDG_DATA_HOME=${WORK}/home
    ${WORK}/build/uses_kelcommon)

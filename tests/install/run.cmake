# Installs the build tree BUILD into WORK, builds the project in SOURCE against that and runs it, and
# builds the examples in EXAMPLES as somebody does who has copied them: all of them, and the three
# small ones each by itself.
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
set(ENV{CMAKE_PREFIX_PATH} ${PREFIX})

function(build source)
    run(${CMAKE_COMMAND} -S ${source} -B ${source}-build -G ${GENERATOR}
        -DCMAKE_PREFIX_PATH=${WORK}/prefix -DCMAKE_CXX_COMPILER=${CXX} ${flags})
    run(${CMAKE_COMMAND} --build ${source}-build)
endfunction()

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix)
file(COPY ${SOURCE}/ DESTINATION ${WORK}/project)
build(${WORK}/project)
run(${CMAKE_COMMAND} -E env XDG_CONFIG_HOME=${WORK}/home XDG_DATA_HOME=${WORK}/home
    ${WORK}/project-build/uses_kelcommon)

if(EXAMPLES)
    file(COPY ${EXAMPLES}/hello ${EXAMPLES}/minimal_host ${EXAMPLES}/recipes DESTINATION ${WORK})
    file(COPY ${EXAMPLES} DESTINATION ${WORK})
    foreach(copy hello minimal_host recipes examples)
        build(${WORK}/${copy})
    endforeach()
    run(${WORK}/examples-build/edge_host/edge_host --version)
endif()

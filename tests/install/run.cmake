# Installs the build into a folder of its own, builds the foreign project against it, and runs it.
set(prefix ${BUILD}/install-test)
file(REMOVE_RECURSE ${prefix})

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${ARGN}: ${status}\n${output}")
    endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix}/root)
run(${CMAKE_COMMAND} -S ${SOURCE} -B ${prefix}/build -DCMAKE_PREFIX_PATH=${prefix}/root -DCMAKE_CXX_COMPILER=${COMPILER})
run(${CMAKE_COMMAND} --build ${prefix}/build)
run(${prefix}/build/foreign_kvxbase5)
run(${prefix}/build/foreign_kvxbase5_static)
file(REMOVE_RECURSE ${prefix})

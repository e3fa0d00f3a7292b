# Installs the build into a folder of its own, builds a foreign project against it, which holds the first program of the
# README as it stands there, and runs it.
set(prefix ${BUILD}/install-test)
file(REMOVE_RECURSE ${prefix})
file(MAKE_DIRECTORY ${prefix})

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE error)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${ARGN}: ${status}\n${output}${error}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

# A pipe's name is its folder's alone: other runs of the program don't meet this one.
execute_process(COMMAND mktemp -d OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
set(ENV{KVX_RUNTIME_DIR} ${runtime})

function(run_first)
    run(${ARGN})
    if(NOT output STREQUAL "Hello, world\n")
        message(FATAL_ERROR "the README's program says '${output}'")
    endif()
endfunction()

file(READ ${SOURCE}/../../README.md readme)
if(NOT readme MATCHES "```cpp\n(#include[^`]*)```")
    message(FATAL_ERROR "the README has no program")
endif()
set(program ${prefix}/first.cpp)
file(WRITE ${program} "${CMAKE_MATCH_1}")

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix}/root)
run(${CMAKE_COMMAND} -S ${SOURCE} -B ${prefix}/build -DCMAKE_PREFIX_PATH=${prefix}/root -DCMAKE_CXX_COMPILER=${COMPILER}
    -DREADME_PROGRAM=${program})
run(${CMAKE_COMMAND} --build ${prefix}/build)
foreach(kind kvxbase5 kvxbase5_static)
    run(${prefix}/build/resource_${kind})
    run_first(${prefix}/build/first_${kind})
endforeach()

find_program(PKG_CONFIG pkg-config REQUIRED)
file(GLOB_RECURSE file ${prefix}/root/kvxbase5.pc)
get_filename_component(folder ${file} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${folder})
run(sh -ec "'${COMPILER}' '${program}' -o '${prefix}/shared' $('${PKG_CONFIG}' --cflags --libs kvxbase5)
    '${COMPILER}' -DKVX_STATIC '${program}' -o '${prefix}/static' \
        $('${PKG_CONFIG}' --cflags --static --libs kvxbase5 | sed 's/-lkvxbase5/-lkvxbase5_static/')")
run(${PKG_CONFIG} --variable=libdir kvxbase5)
string(STRIP "${output}" libraries)
run_first(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${libraries} ${prefix}/shared)
run_first(${prefix}/static)
file(REMOVE_RECURSE ${prefix} ${runtime})

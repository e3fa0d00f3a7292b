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

find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
    file(GLOB_RECURSE file ${prefix}/root/kvxbase5.pc)
    get_filename_component(folder ${file} DIRECTORY)
    run(sh -ec "export PKG_CONFIG_PATH='${folder}'
        '${COMPILER}' -DWITHOUT_RESOURCE '${SOURCE}/main.cpp' -o '${prefix}/shared' $('${PKG_CONFIG}' --cflags --libs kvxbase5)
        '${COMPILER}' -DWITHOUT_RESOURCE -DKVX_STATIC '${SOURCE}/main.cpp' -o '${prefix}/static' \
            $('${PKG_CONFIG}' --cflags --static --libs kvxbase5 | sed 's/-lkvxbase5/-lkvxbase5_static/')
        LD_LIBRARY_PATH=\"$('${PKG_CONFIG}' --variable=libdir kvxbase5)\" '${prefix}/shared'
        '${prefix}/static'")
endif()
file(REMOVE_RECURSE ${prefix})

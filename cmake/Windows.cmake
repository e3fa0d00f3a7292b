# What a build for Windows needs beyond the compiler.

# Windows looks for a library under the name as it is written.
set(CMAKE_SHARED_LIBRARY_PREFIX "")
set(CMAKE_SHARED_MODULE_PREFIX "")

# The compiler's own libraries lie beside the programs, which thereby run where they are.
foreach(name libstdc++-6.dll libgcc_s_seh-1.dll libgcc_s_dw2-1.dll libwinpthread-1.dll zlib1.dll)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${name} OUTPUT_VARIABLE file OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(IS_ABSOLUTE "${file}" AND EXISTS "${file}")
        configure_file("${file}" ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${name} COPYONLY)
        list(APPEND KVX_RUNTIME_LIBRARIES ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${name})
    endif()
endforeach()

if(CMAKE_CROSSCOMPILING)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${PROJECT_SOURCE_DIR}/scripts/wine)
    set(KVX_TEST_RUNNER ${PROJECT_SOURCE_DIR}/scripts/wine --test)
endif()

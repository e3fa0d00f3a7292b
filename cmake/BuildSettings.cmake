# Compiler settings that every target of the project shares.
add_library(kvx_build_settings INTERFACE)
target_compile_features(kvx_build_settings INTERFACE cxx_std_20)
target_compile_options(kvx_build_settings INTERFACE -Wall -Wextra)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # This version takes concatenations of std::string for overlapping copies (its bug 105651).
    target_compile_options(kvx_build_settings INTERFACE -Wno-restrict)
endif()
if(KVX_WERROR)
    target_compile_options(kvx_build_settings INTERFACE -Werror)
endif()

if(KVX_SANITIZE)
    string(REPLACE ";" "," kvx_sanitizers "${KVX_SANITIZE}")
    target_compile_options(kvx_build_settings INTERFACE -fsanitize=${kvx_sanitizers} -fno-omit-frame-pointer
                                                        -fno-sanitize-recover=all -g1)
    target_link_options(kvx_build_settings INTERFACE -fsanitize=${kvx_sanitizers})
    if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
        # The checks that the sanitizers add lead this warning astray, in std::regex for one.
        target_compile_options(kvx_build_settings INTERFACE -Wno-maybe-uninitialized)
    endif()
endif()

find_package(tinyxml2 REQUIRED)
find_package(ZLIB REQUIRED) # cabinets
target_link_libraries(kvx_build_settings INTERFACE tinyxml2::tinyxml2 ZLIB::ZLIB)
if(WIN32)
    target_compile_definitions(kvx_build_settings INTERFACE UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN
                                                            _WIN32_WINNT=0x0601)
    target_link_libraries(kvx_build_settings INTERFACE ws2_32 shell32 shlwapi advapi32 rpcrt4 ole32 wininet)
else()
    find_package(Threads REQUIRED)
    find_package(SQLite3 REQUIRED) # the registry
    target_link_libraries(kvx_build_settings INTERFACE Threads::Threads SQLite::SQLite3)
endif()

# Tests needn't be fast, but are most of what there is to compile. Under sanitizers that goes for programs too.
function(kvx_compile_quickly target)
    target_compile_options(${target} PRIVATE $<IF:$<BOOL:${KVX_SANITIZE}>,-O0,$<$<CONFIG:Release>:-O1>>)
endfunction()

find_program(KVX_CCACHE ccache)
if(KVX_CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${KVX_CCACHE})
endif()

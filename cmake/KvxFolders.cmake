# One folder below kvx/ is one object library; the product gathers them all.
#
#   kvx_folder(NAME foundation SOURCES A.cpp B.cpp)
#
# KVX_FOLDERS lists the folders that are built, lowest first. A developer at work on one folder may
# give a shorter list (-DKVX_FOLDERS="platform/win32;platform/mfc"); tests of other folders are left out.
function(kvx_folder)
    cmake_parse_arguments(ARG "" "NAME" "SOURCES" ${ARGN})
    string(REPLACE "/" "_" target "kvx_${ARG_NAME}")
    add_library(${target} OBJECT ${ARG_SOURCES})
    target_include_directories(${target} PUBLIC ${PROJECT_SOURCE_DIR})
    target_compile_definitions(${target} PRIVATE KVX_BUILDING)
    target_link_libraries(${target} PUBLIC kvx_build_settings)
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden
                                               VISIBILITY_INLINES_HIDDEN ON)
    set_property(GLOBAL APPEND PROPERTY KVX_OBJECT_LIBRARIES ${target})
endfunction()

# kvx_test(NAME foundation SOURCES ValueTest.cpp ... [LABELS threaded] [TIMEOUT seconds] [SHARED])
# One GoogleTest program for a folder; ctest runs it as a whole. SHARED links it to the shared library, for tests that load
# modules which use the library too. The label "threaded" puts it on the list
# that runs under ThreadSanitizer.
function(kvx_test)
    cmake_parse_arguments(ARG "SHARED" "NAME;TIMEOUT" "SOURCES;LABELS" ${ARGN})
    string(REPLACE "/" "_" target "test_${ARG_NAME}")
    add_executable(${target} ${ARG_SOURCES})
    target_link_libraries(${target} PRIVATE $<IF:$<BOOL:${ARG_SHARED}>,kvxbase5,kvxbase5_static> GTest::gmock GTest::gtest_main)
    add_test(NAME ${ARG_NAME} COMMAND ${target})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    set_tests_properties(${ARG_NAME} PROPERTIES LABELS "${ARG_LABELS}" TIMEOUT ${ARG_TIMEOUT})
endfunction()

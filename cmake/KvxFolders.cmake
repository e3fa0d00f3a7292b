# One folder below kvx/ is one object library; the product gathers them all.
#
#   kvx_folder(NAME foundation SOURCES A.cpp B.cpp)
#
# With KVX_UNITY=all the sources of a folder are compiled as one, where that goes: in some folders names of different
# sources clash. A release build compiles them one by one, and so sees to it that each includes what it needs.
set(KVX_FOLDERS_APART platform/win32 transport)

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
    if(KVX_UNITY STREQUAL all AND NOT ARG_NAME IN_LIST KVX_FOLDERS_APART)
        set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
    endif()
    set_property(GLOBAL APPEND PROPERTY KVX_OBJECT_LIBRARIES ${target})
endfunction()

# kvx_test(NAME foundation SOURCES ValueTest.cpp ... [APART source...] [LABELS threaded] [TIMEOUT seconds] [SHARED])
# One GoogleTest program for a folder; ctest runs it as a whole. Its sources are compiled as one, which saves most of the
# time, but for those that APART names again: names of theirs clash with others'. SHARED links it to the shared library,
# for tests that load modules which use the library too. The label "threaded" puts it on the list that runs under
# ThreadSanitizer, and makes it a part of the target "threaded_tests".
function(kvx_test)
    cmake_parse_arguments(ARG "SHARED" "NAME;TIMEOUT" "SOURCES;APART;LABELS" ${ARGN})
    string(REPLACE "/" "_" target "test_${ARG_NAME}")
    add_executable(${target} ${ARG_SOURCES})
    target_link_libraries(${target} PRIVATE $<IF:$<BOOL:${ARG_SHARED}>,kvxbase5,kvxbase5_static> test_support GTest::gmock GTest::gtest_main)
    kvx_compile_quickly(${target})
    list(LENGTH ARG_SOURCES count)
    if(count GREATER 1 AND NOT KVX_UNITY STREQUAL none)
        if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
            # It is for headers: that the tests of an unnamed namespace's fixture are included here is no fault.
            target_compile_options(${target} PRIVATE -Wno-subobject-linkage)
        endif()
        set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
        set_source_files_properties(${ARG_APART} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
    endif()
    add_test(NAME ${ARG_NAME} COMMAND ${KVX_TEST_RUNNER} $<TARGET_FILE:${target}>)
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    set_tests_properties(${ARG_NAME} PROPERTIES LABELS "${ARG_LABELS}" TIMEOUT ${ARG_TIMEOUT})
    if("threaded" IN_LIST ARG_LABELS)
        add_dependencies(threaded_tests ${target})
    endif()
endfunction()

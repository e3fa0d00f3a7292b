# cmake --install: headers, both libraries, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(FILES $<TARGET_FILE:kvxbase5_static> $<TARGET_LINKER_FILE:kvxbase5> DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(WIN32)
    # Where programs find it, and with what it needs itself.
    install(FILES $<TARGET_FILE:kvxbase5> ${KVX_RUNTIME_LIBRARIES} DESTINATION ${CMAKE_INSTALL_BINDIR})
else()
    install(FILES $<TARGET_FILE:kvxbase5> $<TARGET_SONAME_FILE:kvxbase5> DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/kvx DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KVXBase5Config.cmake.in
                              ${PROJECT_BINARY_DIR}/KVXBase5Config.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KVXBase5
                              PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_BINDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KVXBase5ConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KVXBase5Config.cmake ${PROJECT_BINARY_DIR}/KVXBase5ConfigVersion.cmake
              ${PROJECT_SOURCE_DIR}/cmake/KvxResources.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KVXBase5)

# Everything in the pkg-config file is relative to where it lies, for an installation that is moved.
file(RELATIVE_PATH kvx_pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" kvx_pc_to_prefix "${kvx_pc_to_prefix}")
set(kvx_pc_cflags "-std=c++20")
if(WIN32)
    string(APPEND kvx_pc_cflags " -DUNICODE -D_UNICODE -DNOMINMAX")
    set(kvx_pc_private "-ltinyxml2 -lz -lws2_32 -lshell32 -lshlwapi -ladvapi32 -lrpcrt4 -lole32 -lwininet")
else()
    set(kvx_pc_private "-ltinyxml2 -lz -lsqlite3 -ldl")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/kvxbase5.pc.in ${PROJECT_BINARY_DIR}/kvxbase5.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kvxbase5.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

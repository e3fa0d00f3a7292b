# kvx_resources(target TYPE NAME file [TYPE NAME file]...)
# Puts files into a program or module as resources, which CWinModule and CUtilities::LoadResource find by type and name
# (without regard to case). The target links to kvxbase5.
function(kvx_resources target)
    set(entries ${ARGN})
    list(LENGTH entries length)
    math(EXPR rest "${length} % 3")
    if(length EQUAL 0 OR NOT rest EQUAL 0)
        message(FATAL_ERROR "kvx_resources(${target}): each resource is a type, a name and a file")
    endif()
    set(files)
    set(script)
    set(data)
    set(declarations)
    set(table)
    set(number 0)
    while(entries)
        list(POP_FRONT entries type name file)
        get_filename_component(file "${file}" ABSOLUTE BASE_DIR "${CMAKE_CURRENT_SOURCE_DIR}")
        list(APPEND files "${file}")
        set(symbol "kvx_resource_${number}")
        string(APPEND script "${name} ${type} \"${file}\"\n")
        string(APPEND data "    \"${symbol}: .incbin \\\"${file}\\\"\\n${symbol}_end: .byte 0\\n\"\n")
        string(APPEND declarations "    extern unsigned char const ${symbol}[], ${symbol}_end[];\n")
        string(APPEND table "    {u\"${type}\", u\"${name}\", ${symbol}, ${symbol}_end},\n")
        math(EXPR number "${number} + 1")
    endwhile()
    if(WIN32)
        enable_language(RC)
        set(source "${CMAKE_CURRENT_BINARY_DIR}/${target}_resources.rc")
        file(CONFIGURE OUTPUT "${source}" CONTENT "@script@" @ONLY)
    else()
        set(source "${CMAKE_CURRENT_BINARY_DIR}/${target}_resources.cpp")
        file(CONFIGURE OUTPUT "${source}" @ONLY CONTENT
"#include \"kvx/platform/win32/modules.h\"

asm(\".pushsection .rodata\\n\"
@data@    \".popsection\\n\");

extern \"C\"
{
#pragma GCC visibility push(hidden)
@declarations@#pragma GCC visibility pop
}

static constexpr kvx::win32::Resource g_resources[] = {
@table@};
static kvx::win32::ResourceTable const g_table(g_resources, @number@);
")
    endif()
    set_source_files_properties("${source}" PROPERTIES OBJECT_DEPENDS "${files}")
    target_sources(${target} PRIVATE "${source}")
endfunction()

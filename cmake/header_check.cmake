# corvalin_check_headers(<target> <headers>...): compiles each header alone, so that none leans on what another
# file happened to include before it. The objects are built with the default target and linked into nothing.
# One build of them is enough: the presets `debug` and `clang` have it.
function(corvalin_check_headers target)
    if(NOT CORVALIN_CHECK_HEADERS)
        return()
    endif()
    set(sources)
    foreach(header IN LISTS ARGN)
        file(RELATIVE_PATH relative "${PROJECT_SOURCE_DIR}" "${header}")
        string(REPLACE "/" "_" stem "${relative}")
        set(source "${CMAKE_CURRENT_BINARY_DIR}/header_check/${stem}.cpp")
        file(CONFIGURE OUTPUT "${source}" CONTENT "#include \"${relative}\" // IWYU pragma: keep\n" @ONLY)
        list(APPEND sources "${source}")
    endforeach()
    add_library(${target}_header_check OBJECT ${sources})
    target_link_libraries(${target}_header_check PRIVATE ${target} corvalin_warnings)
endfunction()

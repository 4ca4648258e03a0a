# corvalin_version_stamp: an INTERFACE target that offers the generated header "version_stamp.h".
# The header is brought up to date at each build and rewritten only when it changes.
set(CORVALIN_STAMP_DIR "${PROJECT_BINARY_DIR}/generated")
add_custom_target(corvalin_version_stamp_header
    COMMAND ${CMAKE_COMMAND}
        -D SOURCE_DIR=${PROJECT_SOURCE_DIR}
        -D OUTPUT=${CORVALIN_STAMP_DIR}/version_stamp.h
        -P ${PROJECT_SOURCE_DIR}/cmake/write_version_stamp.cmake
    BYPRODUCTS ${CORVALIN_STAMP_DIR}/version_stamp.h
    COMMENT "Version stamp"
    VERBATIM)
add_library(corvalin_version_stamp INTERFACE)
target_include_directories(corvalin_version_stamp INTERFACE ${CORVALIN_STAMP_DIR})
add_dependencies(corvalin_version_stamp corvalin_version_stamp_header)

# corvalin_warnings: the warnings that all our own targets are compiled with.
add_library(corvalin_warnings INTERFACE)
target_compile_options(corvalin_warnings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(CORVALIN_WARNINGS_AS_ERRORS)
    target_compile_options(corvalin_warnings INTERFACE -Werror)
endif()

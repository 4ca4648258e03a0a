# Sanitizers and coverage apply to every target, tests and tools included, so they are set for the directory.
if(CORVALIN_SANITIZE)
    add_compile_options(-fsanitize=${CORVALIN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${CORVALIN_SANITIZE})
endif()
if(CORVALIN_COVERAGE)
    # Atomic updates: the counters are bumped by several threads at once.
    add_compile_options(--coverage -fprofile-update=atomic)
    add_link_options(--coverage)
endif()
if(CORVALIN_BUILD_FUZZ)
    # The library's own branches steer the search. The targets alone link libFuzzer, which brings a main.
    add_compile_options(-fsanitize=fuzzer-no-link)
    add_link_options(-fsanitize=fuzzer-no-link)
endif()

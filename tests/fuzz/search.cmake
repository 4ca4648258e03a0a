# Runs the fuzz target TARGET for a few seconds, beginning with the inputs of CORPUS, in the folder WORK_DIR.
# The folder goes when nothing was found and stays, with the input that failed, when something was.
set(seconds 5)
if(DEFINED ENV{CORVALIN_FUZZ_SECONDS})
    set(seconds $ENV{CORVALIN_FUZZ_SECONDS})
endif()
if(DEFINED ENV{CORVALIN_FUZZ_SEED})
    set(seed $ENV{CORVALIN_FUZZ_SEED})
else()
    string(RANDOM LENGTH 9 ALPHABET 123456789 seed)
endif()
message("CORVALIN_FUZZ_SEED=${seed} for ${seconds} seconds")

file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
execute_process(
    COMMAND ${TARGET} -seed=${seed} -max_total_time=${seconds} -timeout=10 -print_final_stats=1
        -artifact_prefix=${WORK_DIR}/ ${WORK_DIR} ${CORPUS}
    RESULT_VARIABLE failed OUTPUT_VARIABLE output ERROR_VARIABLE output)
message("${output}")
if(failed)
    message(FATAL_ERROR "failed (${failed}); the input is in ${WORK_DIR}")
endif()

# A target that hangs at once, or refuses all inputs, has found nothing either.
set(fewest 100)
string(REGEX MATCH "stat::number_of_executed_units: *([0-9]+)" stat "${output}")
if(NOT stat OR CMAKE_MATCH_1 LESS fewest)
    message(FATAL_ERROR "fewer than ${fewest} inputs were tried")
endif()
file(REMOVE_RECURSE ${WORK_DIR})

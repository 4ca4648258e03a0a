# Writes version_stamp.h: "yymmdd:HHMMSS <sixteen hex digits>@<branch>" of the build.
#
# In a git checkout all three come from the checked-out commit (its date in UTC), so the same commit gives the
# same stamp on every machine. Without git (a release tarball) the date is SOURCE_DATE_EPOCH, or else the time of
# the build, the commit is sixteen zeros and the branch is "release".
set(commit "0000000000000000")
set(branch "release")
set(epoch "$ENV{SOURCE_DATE_EPOCH}")

find_program(GIT_EXECUTABLE git)
if(GIT_EXECUTABLE AND EXISTS "${SOURCE_DIR}/.git")
    execute_process(COMMAND ${GIT_EXECUTABLE} log -1 "--format=%H %ct" WORKING_DIRECTORY "${SOURCE_DIR}"
        OUTPUT_VARIABLE head RESULT_VARIABLE failed OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(NOT failed)
        string(REPLACE " " ";" head "${head}")
        list(GET head 0 commit)
        list(GET head 1 epoch)
        string(SUBSTRING "${commit}" 0 16 commit)
        execute_process(COMMAND ${GIT_EXECUTABLE} symbolic-ref --short --quiet HEAD WORKING_DIRECTORY "${SOURCE_DIR}"
            OUTPUT_VARIABLE branch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
        if(branch STREQUAL "")
            set(branch "detached")
        endif()
    endif()
endif()

if(NOT epoch STREQUAL "")
    set(ENV{SOURCE_DATE_EPOCH} "${epoch}")
endif()
string(TIMESTAMP date "%y%m%d:%H%M%S" UTC)

file(CONFIGURE OUTPUT "${OUTPUT}" CONTENT [[// Generated at each build; do not edit.
#pragma once

#define CORVALIN_BUILD_VERSION "@date@ @commit@@@branch@"
]] @ONLY)

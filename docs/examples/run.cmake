# Runs EXAMPLE, under EMULATOR if there is one, in the empty directory SCRATCH, into which the files
# GIVEN are copied; as often as RUNS says, each time in what the run before has left. It must end with
# 0, not by the fatal path (whose status is 0 as well), and leave no file but those named LEAVES, which
# it must: a token file that is left means a semaphore set that is.
file(REMOVE_RECURSE ${SCRATCH})
file(MAKE_DIRECTORY ${SCRATCH})
if(GIVEN)
    file(COPY ${GIVEN} DESTINATION ${SCRATCH})
endif()
unset(ENV{CATPATH}) # it would move the default INI file out of the directory
foreach(run RANGE 1 ${RUNS})
    execute_process(COMMAND ${EMULATOR} ${EXAMPLE}
        WORKING_DIRECTORY ${SCRATCH}
        RESULT_VARIABLE result
        OUTPUT_VARIABLE output
        ERROR_VARIABLE log)
    message("${output}${log}")
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${EXAMPLE}: run ${run} ended with ${result}")
    endif()
    if(log MATCHES "Exiting to operating system")
        message(FATAL_ERROR "${EXAMPLE}: run ${run} ended by a fatal error")
    endif()
endforeach()
foreach(file IN LISTS LEAVES)
    if(NOT EXISTS ${SCRATCH}/${file})
        message(FATAL_ERROR "${EXAMPLE}: made no ${file}")
    endif()
    file(REMOVE ${SCRATCH}/${file})
endforeach()
file(GLOB left LIST_DIRECTORIES true ${SCRATCH}/* ${SCRATCH}/.*)
list(FILTER left EXCLUDE REGEX "/\\.\\.?$")
if(left)
    message(FATAL_ERROR "${EXAMPLE}: left ${left}")
endif()
file(REMOVE_RECURSE ${SCRATCH})

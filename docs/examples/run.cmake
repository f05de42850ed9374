# Runs EXAMPLE in the empty directory SCRATCH. It must end with 0, not by the fatal path (whose
# status is 0 as well), and leave no file but the one named LEAVES, which it must: a token file that is left means a semaphore set that is.
file(REMOVE_RECURSE ${SCRATCH})
file(MAKE_DIRECTORY ${SCRATCH})
execute_process(COMMAND ${EXAMPLE}
    WORKING_DIRECTORY ${SCRATCH}
    RESULT_VARIABLE result
    OUTPUT_VARIABLE output
    ERROR_VARIABLE log)
message("${output}${log}")
if(NOT result EQUAL 0)
    message(FATAL_ERROR "${EXAMPLE}: ended with ${result}")
endif()
if(log MATCHES "Exiting to operating system")
    message(FATAL_ERROR "${EXAMPLE}: ended by a fatal error")
endif()
if(DEFINED LEAVES)
    if(NOT EXISTS ${SCRATCH}/${LEAVES})
        message(FATAL_ERROR "${EXAMPLE}: made no ${LEAVES}")
    endif()
    file(REMOVE ${SCRATCH}/${LEAVES})
endif()
file(GLOB left LIST_DIRECTORIES true ${SCRATCH}/* ${SCRATCH}/.*)
list(FILTER left EXCLUDE REGEX "/\\.\\.?$")
if(left)
    message(FATAL_ERROR "${EXAMPLE}: left ${left}")
endif()
file(REMOVE_RECURSE ${SCRATCH})

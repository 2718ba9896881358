# run(COMMAND...) runs a command, which has to succeed; what it writes is in the variable output.
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${ARGN}: ${status}\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

# expect(STATUS TEXT COMMAND...) runs a command in SCRATCH, which ends with the status and writes what matches the text.
function(expect status text)
    execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${SCRATCH}
        RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL status OR NOT output MATCHES "${text}")
        message(FATAL_ERROR "${ARGN}: ${result}, not ${status} and \"${text}\"\n${output}")
    endif()
endfunction()

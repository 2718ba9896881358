# run(COMMAND...) runs a command, which has to succeed; what it writes is in the variable output.
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${ARGN}: ${status}\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

# Installs the build tree BUILD_DIR into a scratch prefix, builds the
# consumer project CONSUMER_DIR against it with find_package, and runs it.
file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "${ARGN} failed:\n${out}")
    endif()
    set(output "${out}" PARENT_SCOPE)
endfunction()
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}" --component dev)
run(${CMAKE_COMMAND} -S "${CONSUMER_DIR}" -B "${WORK_DIR}/build" -G "${GENERATOR}"
    "-DCMAKE_PREFIX_PATH=${prefix}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
run("${WORK_DIR}/build/consumer")
if(NOT output STREQUAL "MemTotal=2048 A=1\n")
    message(FATAL_ERROR "the consumer printed '${output}'")
endif()

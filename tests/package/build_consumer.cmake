# Installs the build tree BUILD_DIR into a scratch prefix, builds the
# consumer project CONSUMER_DIR against it with find_package, and runs it.
# A cross build's tree gives TOOLCHAIN_FILE, PKG_CONFIG_PATH and the
# EMULATOR that runs the consumer.
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
set(cross)
if(TOOLCHAIN_FILE)
    set(cross "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE}")
    set(ENV{PKG_CONFIG_PATH} "${PKG_CONFIG_PATH}")
endif()
run(${CMAKE_COMMAND} -S "${CONSUMER_DIR}" -B "${WORK_DIR}/build" -G "${GENERATOR}"
    "-DCMAKE_PREFIX_PATH=${prefix}" ${cross})
run(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
run(${EMULATOR} "${WORK_DIR}/build/consumer")
if(NOT output STREQUAL "MemTotal=2048 A=1\n")
    message(FATAL_ERROR "the consumer printed '${output}'")
endif()

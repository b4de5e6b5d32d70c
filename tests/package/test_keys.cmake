# The committed test keys are recognised by the keys themselves
# (keys/test_keys.cmake): in a directory of any name, one among others, or
# written anew from the test-only private key; a set of keys made here is
# not taken for them. Run with -DOPENSSL_EXECUTABLE=... -DWORK_DIR=... -P.
cmake_minimum_required(VERSION 3.25)
include("${CMAKE_CURRENT_LIST_DIR}/../../keys/test_keys.cmake")
file(REMOVE_RECURSE "${WORK_DIR}")
set(names srb-1 srb-2 blessing-1 blessing-2)
function(openssl)
    execute_process(COMMAND "${OPENSSL_EXECUTABLE}" ${ARGN} RESULT_VARIABLE status OUTPUT_QUIET ERROR_QUIET)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "openssl ${ARGN} failed")
    endif()
endfunction()

# "copy": the test keys under another directory's name; "fresh": four keys
# made here; "mixed": fresh ones, but blessing-2 written anew from its
# test-only private key.
file(COPY "${VX_TEST_KEYS_DIR}/" DESTINATION "${WORK_DIR}/copy" FILES_MATCHING PATTERN "*.pub.pem")
foreach(set fresh mixed)
    file(MAKE_DIRECTORY "${WORK_DIR}/${set}")
    foreach(name IN LISTS names)
        openssl(genrsa -out "${WORK_DIR}/${set}/${name}.pem" 2048)
        openssl(rsa -in "${WORK_DIR}/${set}/${name}.pem" -pubout -out "${WORK_DIR}/${set}/${name}.pub.pem")
    endforeach()
endforeach()
openssl(rsa -in "${VX_TEST_KEYS_DIR}/blessing-2.test-only.pem" -pubout -outform PEM
        -out "${WORK_DIR}/mixed/blessing-2.pub.pem")

foreach(case "copy:srb-1,srb-2,blessing-1,blessing-2" "fresh:" "mixed:blessing-2")
    string(REPLACE ":" ";" case "${case}")
    list(GET case 0 set)
    list(GET case 1 expected)
    string(REPLACE "," ";" expected "${expected}")
    vx_stored_test_keys("${WORK_DIR}/${set}" found)
    if(NOT "${found}" STREQUAL "${expected}")
        message(FATAL_ERROR "${set}: recognised as test keys '${found}', expected '${expected}'")
    endif()
endforeach()

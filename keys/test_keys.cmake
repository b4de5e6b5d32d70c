# Recognises the committed test keys among a set of stored keys.
#
# The private halves of the keys in keys/test are in the repository: a build
# that stores any of them accepts records that anyone can sign. A key is
# recognised by its modulus, whatever its file or directory is called.
#
#   vx_stored_test_keys(KEYS_DIR OUT_VAR)
#
# sets OUT_VAR to the names (srb-1, srb-2, blessing-1, blessing-2) of the
# keys in KEYS_DIR (NAME.pub.pem) that are test keys; empty when none is.
# OPENSSL_EXECUTABLE names openssl.
set(VX_TEST_KEYS_DIR "${CMAKE_CURRENT_LIST_DIR}/test")

# The modulus of a PEM public key in upper-case hex digits, or an empty text.
function(vx_key_modulus pem out_var)
    execute_process(COMMAND "${OPENSSL_EXECUTABLE}" rsa -pubin -in "${pem}" -noout -modulus
                    OUTPUT_VARIABLE output ERROR_QUIET RESULT_VARIABLE status)
    set(modulus "")
    if(status EQUAL 0 AND output MATCHES "^Modulus=([0-9A-Fa-f]+)")
        string(TOUPPER "${CMAKE_MATCH_1}" modulus)
    endif()
    set(${out_var} "${modulus}" PARENT_SCOPE)
endfunction()

function(vx_stored_test_keys keys_dir out_var)
    set(test_moduli)
    file(GLOB test_keys "${VX_TEST_KEYS_DIR}/*.pub.pem")
    foreach(pem IN LISTS test_keys)
        vx_key_modulus("${pem}" modulus)
        list(APPEND test_moduli "${modulus}")
    endforeach()
    set(found)
    foreach(name srb-1 srb-2 blessing-1 blessing-2)
        vx_key_modulus("${keys_dir}/${name}.pub.pem" modulus)
        if(modulus AND modulus IN_LIST test_moduli)
            list(APPEND found ${name})
        endif()
    endforeach()
    set(${out_var} "${found}" PARENT_SCOPE)
endfunction()

# Fails unless PROGRAM holds the symbol PRESENT (so that nm is known to list
# the program's code) and no signing, private-key or record-encoding code
# (the factory's side), and unless no object of the ARCHIVES it links (the
# project's own libraries) calls libgcrypt's signing: libgcrypt itself is
# linked whole from its archive, its signing function with it. Run with
# cmake -P.
function(symbols_of file out_var)
    execute_process(COMMAND nm -C "${file}" OUTPUT_VARIABLE symbols ERROR_QUIET RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "nm ${file} failed")
    endif()
    set(${out_var} "${symbols}" PARENT_SCOPE)
endfunction()
symbols_of("${PROGRAM}" symbols)
if(NOT symbols MATCHES "${PRESENT}")
    message(FATAL_ERROR "${PROGRAM}: nm does not list ${PRESENT}; the check cannot tell")
endif()
foreach(pattern SignDigest LoadPrivateKey SignSrb SrbSignatureVariables MakeBlessingPayload EncodeDeviceData
                EncodeBootloaderEnvironment)
    string(REGEX MATCHALL "[^\n]*${pattern}[^\n]*" found "${symbols}")
    if(found)
        message(FATAL_ERROR "${PROGRAM} links factory code:\n${found}")
    endif()
endforeach()
foreach(archive IN LISTS ARCHIVES)
    symbols_of("${archive}" symbols)
    string(REGEX MATCHALL "[^\n]* U gcry_pk_sign[^\n]*" found "${symbols}")
    if(found)
        message(FATAL_ERROR "${archive} calls libgcrypt's signing:\n${found}")
    endif()
endforeach()
message(STATUS "${PROGRAM}: no signing code")

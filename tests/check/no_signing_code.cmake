# Fails unless PROGRAM holds the symbol PRESENT (so that nm is known to list
# the program's code) and no signing, private-key or record-encoding code
# (the factory's side). Run with cmake -P.
execute_process(COMMAND nm -C "${PROGRAM}" OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "nm ${PROGRAM} failed")
endif()
if(NOT symbols MATCHES "${PRESENT}")
    message(FATAL_ERROR "${PROGRAM}: nm does not list ${PRESENT}; the check cannot tell")
endif()
foreach(pattern SignDigest LoadPrivateKey gcry_pk_sign SignSrb SrbSignatureVariables
                MakeBlessingPayload EncodeDeviceData EncodeBootloaderEnvironment)
    string(REGEX MATCHALL "[^\n]*${pattern}[^\n]*" found "${symbols}")
    if(found)
        message(FATAL_ERROR "${PROGRAM} links factory code:\n${found}")
    endif()
endforeach()
message(STATUS "${PROGRAM}: no signing code")

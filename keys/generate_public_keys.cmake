# Writes OUTPUT, a C++ source defining the four stored public keys, from the
# PEM public keys srb-1, srb-2, blessing-1 and blessing-2 (.pub.pem) in
# KEYS_DIR. Each key becomes the canonical S-expression
#   (10:public-key(3:rsa(1:n257:<00 + 256-byte modulus>)(1:e3:<3-byte exponent>)))
# of exactly 298 bytes. Run with cmake -DOPENSSL=... -DKEYS_DIR=... -DOUTPUT=... -P.
cmake_minimum_required(VERSION 3.25)

foreach(var OPENSSL KEYS_DIR OUTPUT)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "generate_public_keys: ${var} is not set")
    endif()
endforeach()

# Appends the bytes of an ASCII text as C++ hex literals to out_var.
function(append_text_bytes out_var text)
    string(HEX "${text}" hex)
    append_hex_bytes(${out_var} "${hex}")
    set(${out_var} "${${out_var}}" PARENT_SCOPE)
endfunction()

# Appends hex digits (an even number) as C++ hex literals to out_var.
function(append_hex_bytes out_var hex)
    set(result "${${out_var}}")
    string(TOLOWER "${hex}" hex)
    string(REGEX REPLACE "(..)" "0x\\1, " bytes "${hex}")
    set(${out_var} "${result}${bytes}" PARENT_SCOPE)
endfunction()

set(functions SrbPublicKey1 SrbPublicKey2 BlessingPublicKey1 BlessingPublicKey2)
set(files srb-1 srb-2 blessing-1 blessing-2)

set(body "")
foreach(index RANGE 3)
    list(GET functions ${index} function)
    list(GET files ${index} file)
    set(pem "${KEYS_DIR}/${file}.pub.pem")
    if(NOT EXISTS "${pem}")
        message(FATAL_ERROR "Public key ${pem} is missing")
    endif()

    execute_process(COMMAND "${OPENSSL}" rsa -pubin -in "${pem}" -noout -modulus
                    OUTPUT_VARIABLE modulus_out ERROR_VARIABLE err RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0 OR NOT modulus_out MATCHES "^Modulus=([0-9A-Fa-f]+)")
        message(FATAL_ERROR "${pem}: not an RSA public key: ${err}")
    endif()
    set(modulus "${CMAKE_MATCH_1}")
    string(LENGTH "${modulus}" modulus_digits)
    if(NOT modulus_digits EQUAL 512 OR NOT modulus MATCHES "^[89A-Fa-f]")
        message(FATAL_ERROR "${pem}: the modulus is not 2048 bits long")
    endif()

    execute_process(COMMAND "${OPENSSL}" rsa -pubin -in "${pem}" -noout -text
                    OUTPUT_VARIABLE text_out ERROR_VARIABLE err RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0 OR NOT text_out MATCHES "Exponent: ([0-9]+)")
        message(FATAL_ERROR "${pem}: no public exponent: ${err}")
    endif()
    set(exponent "${CMAKE_MATCH_1}")
    if(exponent GREATER_EQUAL 16777216 OR exponent LESS 3)
        message(FATAL_ERROR "${pem}: the public exponent ${exponent} does not fit 3 bytes")
    endif()
    math(EXPR exponent_hex "${exponent}" OUTPUT_FORMAT HEXADECIMAL)
    string(SUBSTRING "${exponent_hex}" 2 -1 exponent_hex)
    string(LENGTH "${exponent_hex}" digits)
    while(digits LESS 6)
        string(PREPEND exponent_hex "0")
        math(EXPR digits "${digits} + 1")
    endwhile()

    set(bytes "")
    append_text_bytes(bytes "(10:public-key(3:rsa(1:n257:")
    append_hex_bytes(bytes "00${modulus}")
    append_text_bytes(bytes ")(1:e3:")
    append_hex_bytes(bytes "${exponent_hex}")
    append_text_bytes(bytes ")))")
    string(REPEAT "0x.., " 12 twelve)
    string(REGEX REPLACE "(${twelve})" "\\1\n    " bytes "${bytes}")
    string(REPLACE ", \n" ",\n" bytes "${bytes}")
    string(REGEX REPLACE "[ \n]+$" "" bytes "${bytes}")

    string(APPEND body
        "// ${file}.pub.pem\n"
        "constexpr std::uint8_t ${function}_bytes[] = {\n    ${bytes}\n};\n"
        "static_assert(sizeof(${function}_bytes) == STORED_KEY_SIZE);\n\n")
endforeach()

set(accessors "")
foreach(function ${functions})
    string(APPEND accessors
        "StoredKey ${function}()\n{\n    return StoredKey(${function}_bytes);\n}\n\n")
endforeach()

file(WRITE "${OUTPUT}.tmp"
    "// Generated from the PEM public keys in ${KEYS_DIR}. Do not edit.\n"
    "#include \"hardware/stored_keys.h\"\n\n"
    "namespace {\n\n${body}} // namespace\n\n${accessors}")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")

# The wait for the check's devices decides on eth0 (if-bit:) by the unit's
# hardware bitfield: a copy of packaging/lib/wait-devices runs against a
# stand-in for vxtool hwconfig that answers a bitfield, fails or hangs.
# Run with -DSCRIPT=... -DWORK_DIR=... -P.
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
file(WRITE "${WORK_DIR}/vxtool" [=[#!/bin/sh
[ "$1" = hwconfig ] || exit 2
case "$(cat "${0%/*}/answer")" in
    fail) echo "error: /dev/mtd0: Permission denied" >&2; exit 1 ;;
    hang) exec sleep 60 ;;
    *) echo "model: Sim"; echo "hardware-bitfield: $(cat "${0%/*}/answer")"; echo "bit 0x1 NAME" ;;
esac
]=])
file(READ "${SCRIPT}" script)
string(REGEX REPLACE "\nVXTOOL=[^\n]*" "\nVXTOOL=${WORK_DIR}/vxtool" script "${script}")
file(WRITE "${WORK_DIR}/wait-devices" "${script}")
file(CHMOD "${WORK_DIR}/vxtool" "${WORK_DIR}/wait-devices" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
file(TOUCH "${WORK_DIR}/present")
set(absent "${WORK_DIR}/absent")

# answer|devices|status|standard error (a regular expression, whole)
set(cases
    "0x88100000001|if-bit:0x10:${absent}|0|not waiting for ${absent}: hardware bitfield 0x88100000001 has no bit of 0x10\n"
    "0x10|if-bit:0x10:${absent}|1|still missing after [2-9]\\.. s: ${absent}\n"
    # Sixteen digits: the high bit is past the shell's signed arithmetic.
    "0xffffffffffffffef|if-bit:0x10:${absent}|0|not waiting for ${absent}: [^\n]*\n"
    "0xffffffffffffffff|if-bit:0x10:${absent}|1|still missing after [2-9]\\.. s: ${absent}\n"
    "0x1|if-bit:0x10:${absent},if-bit:0x1:${absent}2|1|not waiting for ${absent}: [^\n]*\nstill missing after [2-9]\\.. s: ${absent}2\n"
    # The bitfield is asked for only when a device of if-bit: is missing.
    "hang|if-bit:0x10:${WORK_DIR}/present|0|"
    "fail|if-bit:0x10:${absent}|1|cannot tell the hardware bitfield \\(vxtool hwconfig, exit status 1: error: /dev/mtd0: Permission denied\\)\nwaiting for ${absent} all the same\nstill missing after [2-9]\\.. s: ${absent}\n"
    "hang|if-bit:0x10:${absent}|1|cannot tell the hardware bitfield \\(vxtool hwconfig, exit status 124: no answer within [12] s\\)\nwaiting for ${absent} all the same\nstill missing after [2-9]\\.. s: ${absent}\n"
    "0x1|if-bit:0x:${absent}|2|usage: wait-devices SECONDS DEVICE...\n"
    "0x1|if-bit:10:${absent}|2|usage: wait-devices SECONDS DEVICE...\n"
    "0x1|if-bit:0x1000000000000000:${absent}|2|usage: wait-devices SECONDS DEVICE...\n")
foreach(case IN LISTS cases)
    string(REPLACE "|" ";" fields "${case}")
    list(GET fields 0 answer)
    list(GET fields 1 devices)
    string(REPLACE "," ";" devices "${devices}")
    list(GET fields 2 expected_status)
    set(expected_err "")
    list(LENGTH fields count)
    if(count EQUAL 4)
        list(GET fields 3 expected_err)
    endif()
    file(WRITE "${WORK_DIR}/answer" "${answer}")
    execute_process(COMMAND "${WORK_DIR}/wait-devices" 2 ${devices} RESULT_VARIABLE status ERROR_VARIABLE err
                    TIMEOUT 20)
    if(NOT status STREQUAL expected_status OR NOT err MATCHES "^${expected_err}$")
        message(SEND_ERROR "vxtool answers '${answer}', wait-devices 2 ${devices}:\n"
                           "status ${status}, expected ${expected_status}\n${err}expected:\n${expected_err}")
    endif()
endforeach()

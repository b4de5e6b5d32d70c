#!/bin/sh
# The fault injector on the host, with sort (which reads and writes through
# stdio, whose system calls no symbol a preloaded library could replace
# reaches): each kind's first call fails the way the kernel would fail it and
# is logged with its target; a call beyond the last one made fails nothing;
# without a fault the program's output is unchanged.
#   injector_test.sh LIBVXFAULT
set -u
lib=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
printf 'b\na\n' > "$dir/in"
failures=0

# run KIND NTH: sort under the injector; sets status, out, err and log.
run() {
    rm -f "$dir/log"
    env -i LD_PRELOAD="$lib" VXFAULT_CALL="$1" VXFAULT_NTH="$2" VXFAULT_LOG="$dir/log" \
        /usr/bin/sort "$dir/in" > "$dir/out" 2> "$dir/err"
    status=$?
    out=$(cat "$dir/out") err=$(cat "$dir/err")
    # The descriptor's number depends on what the test itself inherited.
    log=$(sed 's/fd=[0-9]*:/fd=F:/' "$dir/log" 2> /dev/null)
}

expect() {
    [ "$2" = "$3" ] && return
    echo "FAIL $1: expected '$3', got '$2'"
    failures=$((failures + 1))
}

run open 1
expect "open 1 status" "$status" 2
expect "open 1 log" "$log" "open 1 openat 5 $dir/in"
expect "open 1 message" "$err" "/usr/bin/sort: open failed: $dir/in: Input/output error"

run read 1
expect "read 1 status" "$status" 2
expect "read 1 log" "$log" "read 1 read 5 fd=F:$dir/in"

run write 1
expect "write 1 status" "$status" 2
expect "write 1 log" "$log" "write 1 write 5 fd=F:$dir/out"

rm -f "$dir/log"
env -i LD_PRELOAD="$lib" VXFAULT_CALL=read VXFAULT_NTH=1 VXFAULT_ERRNO=4 VXFAULT_LOG="$dir/log" \
    /usr/bin/sort "$dir/in" > /dev/null 2>&1
expect "read 1 errno 4 log" "$(cut -d' ' -f4 "$dir/log")" 4

run read 1000
expect "read 1000 status" "$status" 0
expect "read 1000 log" "$log" ""
expect "read 1000 output" "$out" "$(printf 'a\nb')"

# Counting from the first open of the input: sort -o opens the output file
# first, and that open is not counted.
rm -f "$dir/log"
env -i LD_PRELOAD="$lib" VXFAULT_CALL=open VXFAULT_NTH=1 VXFAULT_FROM="$dir/in" VXFAULT_LOG="$dir/log" \
    /usr/bin/sort -o "$dir/sorted" "$dir/in" 2> /dev/null
expect "open 1 from the input" "$(cat "$dir/log")" "open 1 openat 5 $dir/in"

# Without VXFAULT_CALL nothing fails.
env -i LD_PRELOAD="$lib" /usr/bin/sort "$dir/in" > "$dir/out"
expect "counting only" "$(cat "$dir/out")" "$(printf 'a\nb')"

[ $failures -eq 0 ] && echo "injector: all cases passed"
exit $((failures != 0))

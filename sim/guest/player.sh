# Guest side of the simulated player: the steps a batch script is made of.
# Runs under busybox sh in the initramfs; usage: sh player.sh BATCH-SCRIPT.
#
# A scenario gets its own root: an overlay whose lower layers are the host's
# root file system (the programs and their libraries, read-only over 9p)
# below the runner's shared layers, if any (vx_layers: the arm64 player's
# user space), and whose upper layer is on a fresh tmpfs of its own, so
# /etc/issue and everything else the program writes stays in the guest and
# dies with the scenario. Inside it:
# fresh sysfs and devtmpfs, tmpfs /run, the kernel's procfs under
# /run/vxsim/procfs, and a tmpfs /proc that holds the scenario's own files
# (boardid, the renamed mtd table, any override) and symlinks into the real
# procfs for everything else.
#
# The player's hardware (sim/hw): the GPIO chip's module is loaded afresh for
# every scenario; the GPIO event device's server (vxevdev) and the splash
# pipe's reader run only from before the program until after it.
#
# Every step prints what failed and returns non-zero; the batch script runs
# a scenario's steps under "set -e" so that the first failure ends it.

NANDSIM_IDS="first_id_byte=0x20 second_id_byte=0xaa third_id_byte=0x00 fourth_id_byte=0x15"
PROCFS=/run/vxsim/procfs
EVDEV_NODE=/dev/input/veltrix-gpio
# The server's log and pid file, in the scenario root's tmpfs /run: the
# server writes a line per event, and 9p would slow it down.
EVDEV_LOG=/run/vxsim/vxevdev.log
EVDEV_PID=/run/vxsim/vxevdev.pid
SPLASH_PIPE=/boot-splash-pipe
export PATH=/bin:/sbin:/usr/bin:/usr/sbin

# vx_begin NAME: creates the scenario's root; the scenario directory is
# /vx/NAME (inputs under in/, results go to out/).
vx_begin() {
    NAME=$1
    SC=/vx/$1
    ROOT=/tmp/$1/root
    LAYER=/tmp/$1/layer
    mkdir -p "$SC/out" "$ROOT"
    vx_mount -t tmpfs -o mode=0755 tmpfs "$LAYER"
    mkdir "$LAYER/upper" "$LAYER/work"
    vx_mount -t overlay overlay \
        -o "lowerdir=${VX_LOWERDIR:-/host},upperdir=$LAYER/upper,workdir=$LAYER/work" "$ROOT"
    vx_mount -t sysfs sysfs "$ROOT/sys"
    vx_mount -t devtmpfs devtmpfs "$ROOT/dev"
    # /tmp stays the overlay's: the host's /tmp shows through (a build tree
    # may live there) and whatever the programs write stays in the guest.
    vx_mount -t tmpfs tmpfs "$ROOT/run"
    mkdir -p "$ROOT$PROCFS" "$ROOT/run/vxsim/scenario"
    vx_mount -t proc proc "$ROOT$PROCFS"
    vx_mount -o bind "$SC" "$ROOT/run/vxsim/scenario"
    vx_copy_files
}

# vx_copy_files: the scenario's files (in/root) copied into its root; a
# scenario's directory takes the place of a file of the same name.
vx_copy_files() {
    [ -d "$SC/in/root" ] || return 0
    (cd "$SC/in/root" && find . -type d) | while read -r d; do
        [ -d "$ROOT/$d" ] || rm -f "$ROOT/$d"
    done
    cp -a "$SC/in/root/." "$ROOT/"
}

# vx_systemd_begin NAME DISK first|again: the root of a player that boots
# systemd as its first process, which the guest's init switches to once the
# batch script is done (vx_systemd_boot). Its writable layer is the ext4
# file system on the virtual disk DISK, kept from one boot of the scenario
# to the next, so what the player writes survives its reboot; the first
# boot puts the scenario's files in, over an /etc/systemd/system of the
# player's own (the host's enabled units are not the player's). The kernel's own
# procfs, sysfs and devtmpfs (systemd keeps what is mounted), a tmpfs /run
# and /tmp (the host's /tmp is not the player's to clean at boot), and the
# scenario directory at /run/vxsim/scenario with the run directory
# at /run/vxsim/run, where the player's observer leaves the results.
vx_systemd_begin() {
    NAME=$1
    SC=/vx/$1
    ROOT=/tmp/$1/root
    LAYER=/tmp/$1/layer
    mkdir -p "$SC/out" "$ROOT"
    vx_mount -t ext4 "$2" "$LAYER"
    mkdir -p "$LAYER/upper" "$LAYER/work"
    vx_mount -t overlay overlay \
        -o "lowerdir=${VX_LOWERDIR:-/host},upperdir=$LAYER/upper,workdir=$LAYER/work" "$ROOT"
    vx_mount -t proc proc "$ROOT/proc"
    vx_mount -t sysfs sysfs "$ROOT/sys"
    vx_mount -t devtmpfs devtmpfs "$ROOT/dev"
    vx_mount -t tmpfs -o mode=0755,nosuid,nodev tmpfs "$ROOT/run"
    vx_mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs "$ROOT/tmp"
    vx_mount -o bind "$SC" "$ROOT/run/vxsim/scenario"
    vx_mount -o bind /vx "$ROOT/run/vxsim/run"
    [ "$3" = first ] || return 0
    rm -rf "$ROOT/etc/systemd/system" && mkdir "$ROOT/etc/systemd/system" && vx_copy_files
}

# vx_board NAME...: the board as the kernel shows it, for a root with the
# kernel's own procfs: the flash partitions named NAME... in order (module
# vxboard) and /proc/boardid with the scenario's in/proc/boardid, if any.
vx_board() {
    names=$(echo "$*" | tr ' ' ',')
    if grep -q '^vxboard ' /proc/modules; then
        rmmod vxboard || { echo "cannot unload vxboard"; return 1; }
    fi
    with=0
    [ -f "$SC/in/proc/boardid" ] && with=1
    insmod /modules/vxboard.ko "boardid=$with" ${names:+"names=$names"} \
        || { echo "cannot load vxboard names=$names"; return 1; }
    [ "$with" = 0 ] || cat "$SC/in/proc/boardid" > /proc/boardid
}

# vx_systemd_boot: the scenario's root is ready; the guest's init switches
# to it and starts systemd there.
vx_systemd_boot() {
    echo "$ROOT" > /vx/switch-root
}

# vx_layers N: mounts the N layers the runner shares (layer0, ...) read-only
# at /layers/0, ... and lays them over the host's root in every scenario
# root, layer0 uppermost.
vx_layers() {
    VX_LOWERDIR=/host
    i=$(($1 - 1))
    while [ "$i" -ge 0 ]; do
        vx_mount -t 9p -o trans=virtio,version=9p2000.L,msize=512000,cache=loose,ro "layer$i" "/layers/$i" \
            || return 1
        VX_LOWERDIR=/layers/$i:$VX_LOWERDIR
        i=$((i - 1))
    done
}

# vx_remove PATH...: no such files in the scenario's root (those of the
# host's root hidden).
vx_remove() {
    for p; do
        rm -f "$ROOT$p" || return 1
    done
}

# vx_fifo PATH: a FIFO at PATH in the scenario's root.
vx_fifo() {
    mkdir -p "$ROOT${1%/*}" && rm -f "$ROOT$1" && mkfifo "$ROOT$1"
}

# vx_symlink TARGET PATH: a symbolic link to TARGET at PATH in the
# scenario's root.
vx_symlink() {
    mkdir -p "$ROOT${2%/*}" && rm -f "$ROOT$2" && ln -s "$1" "$ROOT$2"
}

# vx_disk_full: the root's writable layer (its own tmpfs) left without a free
# page: shrunk to what it holds plus one page, which a file outside the
# overlay then takes. The program can still make a file, not write one.
vx_disk_full() {
    # shellcheck disable=SC2046
    set -- $(stat -f -c '%b %f %S' "$LAYER")
    mount -o remount,size=$((($1 - $2 + 1) * $3)) "$LAYER" || { echo "cannot shrink $LAYER"; return 1; }
    dd if=/dev/zero of="$LAYER/fill" bs="$3" count=1 2>/dev/null
    # shellcheck disable=SC2046
    set -- $(stat -f -c '%f' "$LAYER")
    [ "$1" -eq 0 ] || { echo "$LAYER still has $1 free pages"; return 1; }
}

vx_mount() {
    for target; do :; done
    mkdir -p "$target"
    mount "$@" || { echo "mount $* failed"; return 1; }
}

# vx_flash PARTS BADBLOCKS [PARAM...]: a fresh simulated chip (2048-byte pages, 128 KiB
# erase blocks, 64 bytes of OOB) cut into partitions of PARTS erase blocks
# (comma-separated), with the factory bad blocks BADBLOCKS (chip-wide
# indexes, comma-separated, may be empty), and nandsim's fault parameters
# after them (gravepages=..., bitflips=...). With no PARTS the player has no
# flash at all.
vx_flash() {
    if grep -q '^nandsim ' /proc/modules; then
        rmmod nandsim || { echo "cannot unload nandsim"; return 1; }
    fi
    [ -n "$1" ] || return 0
    parts=$1 bad=$2
    shift 2
    # shellcheck disable=SC2086
    insmod /modules/nandsim.ko $NANDSIM_IDS "parts=$parts" ${bad:+"badblocks=$bad"} "$@" \
        || { echo "cannot load nandsim parts=$parts badblocks=$bad $*"; return 1; }
}

# vx_erase INDEX: erases partition INDEX the way the factory does, leaving
# its bad blocks alone.
vx_erase() {
    chroot "$ROOT" /usr/sbin/flash_erase -q "/dev/mtd$1" 0 0
}

# vx_write INDEX IMAGE: writes IMAGE (a path below the scenario directory)
# from the start of partition INDEX over its good blocks.
vx_write() {
    chroot "$ROOT" /usr/sbin/nandwrite -q -p "/dev/mtd$1" "/run/vxsim/scenario/$2"
}

# vx_write_raw INDEX RAW: writes RAW (a path below the scenario directory:
# pages of 2048 bytes each followed by its 64 OOB bytes, as captured) from
# the start of partition INDEX over its good blocks, without ECC: the pages
# and their OOB bytes, the ECC bytes among them, land as the unit's flash
# held them, so the chip's ECC sees what the unit's saw.
vx_write_raw() {
    chroot "$ROOT" /usr/sbin/nandwrite -q -n -o "/dev/mtd$1" "/run/vxsim/scenario/$2"
}

# vx_flip INDEX PAGE BYTE: a bit flip in page PAGE of partition INDEX: the
# lowest set bit of the first non-zero byte from BYTE is cleared by a raw
# write of the page with its out-of-band bytes as they are (NAND programming
# only clears bits), which leaves the ECC the page was written with, so the
# chip's ECC corrects the bit on reading.
vx_flip() {
    offset=$(($2 * 2048))
    chroot "$ROOT" /usr/sbin/nanddump -q -n -o -s "$offset" -l 2048 -f /run/vx_flip.page "/dev/mtd$1" \
        || return 1
    page=$ROOT/run/vx_flip.page
    at=$3
    while [ "$at" -lt 2048 ]; do
        value=$(od -An -tu1 -j "$at" -N1 "$page" | tr -d ' ')
        [ "$value" -ne 0 ] && break
        at=$((at + 1))
    done
    [ "$at" -lt 2048 ] || { echo "vx_flip: page $2 has no set bit from byte $3"; return 1; }
    value=$((value & (value - 1)))
    printf "$(printf '\\%03o' "$value")" | dd of="$page" bs=1 seek="$at" conv=notrunc 2>/dev/null
    chroot "$ROOT" /usr/sbin/nandwrite -q -n -o -s "$offset" "/dev/mtd$1" /run/vx_flip.page || return 1
    rm -f "$page"
}

# vx_proc NAME...: fills the tmpfs /proc. The kernel's mtd table is copied
# with its partitions renamed to NAME... in order (sizes and device numbers
# stay the kernel's); scenario files under in/proc come next; symlinks into
# the real procfs fill in every other entry.
vx_proc() {
    vx_mount -t tmpfs -o mode=0555 tmpfs "$ROOT/proc"
    if [ -r /proc/mtd ]; then
        awk -v names="$*" 'BEGIN { n = split(names, name, " ") }
            NR == 1 { print; next }
            NR - 1 <= n { print $1 " " $2 " " $3 " \"" name[NR - 1] "\""; next }
            { print }' /proc/mtd > "$ROOT/proc/mtd" || return 1
    fi
    if [ -d "$SC/in/proc" ]; then
        cp -a "$SC/in/proc/." "$ROOT/proc/"
    fi
    for entry in "$ROOT$PROCFS"/*; do
        entry=${entry##*/}
        case "$entry" in
            [0-9]*) continue ;;
        esac
        [ -e "$ROOT/proc/$entry" ] || [ -L "$ROOT/proc/$entry" ] \
            || ln -s "$PROCFS/$entry" "$ROOT/proc/$entry"
    done
}

# vx_eth0 [MAC]: the NIC named eth0 with the given address (any address:
# the vmxnet3 driver takes all-zero and group addresses too), or no eth0 at
# all (the NIC waits as nic0).
vx_eth0() {
    if [ -e /sys/class/net/eth0 ]; then
        ip link set eth0 down && ip link set eth0 name nic0 || return 1
    fi
    [ -n "${1:-}" ] || return 0
    ip link set nic0 address "$1" && ip link set nic0 name eth0 && ip link set eth0 up
}

# vx_gpio LEVELS: the GPIO chip (lines 64..95) loaded afresh with the input
# levels LEVELS (bit n for line 64 + n), so that no line is exported. An
# exported line holds the module, so every line is unexported first.
vx_gpio() {
    if grep -q '^vxgpio ' /proc/modules; then
        for line in /sys/class/gpio/gpio[0-9]*; do
            [ -e "$line" ] || continue
            echo "${line##*/gpio}" > /sys/class/gpio/unexport \
                || { echo "cannot unexport ${line##*/}"; return 1; }
        done
        rmmod vxgpio || { echo "cannot unload vxgpio"; return 1; }
    fi
    insmod /modules/vxgpio.ko "levels=$1" || { echo "cannot load vxgpio levels=$1"; return 1; }
    [ -d "$ROOT/sys/class/gpio/gpiochip64" ] || { echo "no gpiochip64 in the scenario's sysfs"; return 1; }
}

# vx_input_start VXEVDEV [OPTION...]: starts the GPIO event device's server
# in the scenario's root, with a clean environment, and waits for its node.
vx_input_start() {
    server=$1
    shift
    # A root that boots systemd has a /tmp of its own, which hides a build
    # tree under the host's /tmp: the server then runs from a copy in /run.
    if [ ! -x "$ROOT$server" ]; then
        mkdir -p "$ROOT/run/vxsim/bin" && cp "/host$server" "$ROOT/run/vxsim/bin/" \
            || { echo "the event device's server $server is not there"; return 1; }
        server=/run/vxsim/bin/${server##*/}
    fi
    chroot "$ROOT" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin ASAN_OPTIONS=detect_leaks=0 \
        "$server" "$@" --daemon --log "$EVDEV_LOG" --pid-file "$EVDEV_PID" < /dev/null \
        || { echo "the event device's server did not start"; return 1; }
    [ -c "$ROOT$EVDEV_NODE" ] || { echo "no $EVDEV_NODE after the server started"; return 1; }
}

# vx_input_stop: stops the server (TERM) and waits until its node has gone,
# and with it the server: its log is complete then. Copies the log to out/.
vx_input_stop() {
    vx_stop_server "$ROOT" && cp "$ROOT$EVDEV_LOG" "$SC/out/vxevdev.log"
}

# vx_stop_server ROOT: stops the event device's server of a scenario root,
# if there is one.
vx_stop_server() {
    [ -f "$1$EVDEV_PID" ] || return 0
    kill -TERM "$(cat "$1$EVDEV_PID")" || return 1
    i=0
    while [ -e "$1$EVDEV_NODE" ]; do
        i=$((i + 1))
        [ $i -le 500 ] || { echo "$EVDEV_NODE was still there 5 s after TERM"; return 1; }
        sleep 0.01
    done
    rm -f "$1$EVDEV_PID"
}

# vx_splash_start [BYTES]: makes the splash pipe, a FIFO, and starts its
# reader, which copies everything written to it to /tmp/NAME/splash, outside
# the root (with BYTES: only so many, then it exits, and a write finds no
# reader). This shell keeps a write end open (fd 7) until vx_splash_stop, so
# the reader sees no end of file when the program closes the pipe: it takes
# any number of opens, in order. Opening that end waits for the reader's
# open, so the reader is in place before the program starts.
vx_splash_start() {
    mkfifo "$ROOT$SPLASH_PIPE" || return 1
    if [ -n "${1:-}" ]; then
        head -c "$1" "$ROOT$SPLASH_PIPE" > "/tmp/$NAME/splash" &
    else
        cat "$ROOT$SPLASH_PIPE" > "/tmp/$NAME/splash" &
    fi
    SPLASH_READER=$!
    exec 7> "$ROOT$SPLASH_PIPE"
}

# vx_splash_stop: closes the shell's write end, so that the reader, once it
# has read everything, ends; collects what it read.
vx_splash_stop() {
    exec 7>&-
    i=0
    while kill -0 "$SPLASH_READER" 2>/dev/null; do
        i=$((i + 1))
        if [ $i -gt 500 ]; then
            echo "the splash reader was still reading 5 s after the program: a writer is left"
            kill "$SPLASH_READER"
            return 1
        fi
        sleep 0.01
    done
    wait "$SPLASH_READER" 2>/dev/null
    cp "/tmp/$NAME/splash" "$SC/out/splash"
}

# vx_avs BLOCK: writes the 72-byte AVS status block (a file below the
# scenario directory) at physical 0x08144000 through the guest's /dev/mem.
vx_avs() {
    chroot "$ROOT" /usr/bin/dd if="/run/vxsim/scenario/$1" of=/dev/mem bs=72 count=1 \
        seek=$((0x08144000)) oflag=seek_bytes conv=notrunc status=none
}

# vx_install PACKAGE: installs a Debian package (a file below the scenario
# directory) into the scenario's root with the player's dpkg, its maintainer
# scripts run; triggers (the manual pages' index) are left pending.
vx_install() {
    chroot "$ROOT" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin \
        /usr/bin/dpkg -i --no-triggers "/run/vxsim/scenario/$1"
}

# vx_kmsg FILE: every record now in the kernel log, in /dev/kmsg format.
vx_kmsg() {
    chroot "$ROOT" /usr/bin/dd if=/dev/kmsg of="/run/vxsim/scenario/out/$1" iflag=nonblock bs=65536 2>/dev/null || true
    return 0
}

# vx_run SECONDS [--kmsg|--broken-pipe] [VAR=VALUE...] -- PROGRAM [ARG...]: runs the program (an
# absolute path) in the scenario's root with a clean environment plus the
# given variables and no standard input, kills it after SECONDS, and records
# its output and status, its process id, the kernel log around it and the
# /proc/meminfo it saw.
vx_run() {
    RUN_TIMEOUT=$1
    shift
    # Standard error, held as fd 5: out/stderr; with --kmsg the kernel log,
    # as the boot scripts make it; with --broken-pipe a pipe whose reader has
    # gone (a FIFO opened for reading and writing lets its write end open at
    # once, and is closed again).
    case "${1:-}" in
        --kmsg)
            exec 5> /dev/kmsg
            shift
            : > "$SC/out/stderr" ;;
        --broken-pipe)
            rm -f "/tmp/$NAME/stderr-pipe"
            mkfifo "/tmp/$NAME/stderr-pipe" || return 1
            exec 6<> "/tmp/$NAME/stderr-pipe" 5> "/tmp/$NAME/stderr-pipe" 6<&-
            shift
            : > "$SC/out/stderr" ;;
        *)
            exec 5> "$SC/out/stderr" ;;
    esac
    # The tmpfs /proc holds no process directories; the program gets its own
    # before it starts: "--" becomes a shell that makes it and execs.
    for a; do
        shift
        if [ "$a" = "--" ]; then
            set -- "$@" /bin/sh -c 'ln -s "'"$PROCFS"'/$$" "/proc/$$" && echo $$ > /run/vxsim/scenario/out/pid && exec "$@"' vx_run
        else
            set -- "$@" "$a"
        fi
    done
    # A scenario may make /proc/meminfo unreadable on purpose.
    chroot "$ROOT" /usr/bin/cat /proc/meminfo > "$SC/out/meminfo" 2>/dev/null || true
    vx_kmsg kmsg-before
    read -r t0 rest < /proc/uptime
    status=0
    # In a subshell that redirects its own descriptors before it becomes
    # the program: ash applies a command's redirections in the waiting shell,
    # whose "Aborted" for a program killed by a signal would otherwise land
    # in the program's standard error.
    (exec chroot "$ROOT" /usr/bin/timeout -s KILL "$RUN_TIMEOUT" \
        /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root "$@" \
        < /dev/null > "$SC/out/stdout" 2>&5 5>&- 7>&-) || status=$?
    exec 5>&-
    echo $status > "$SC/out/status"
    read -r t1 rest < /proc/uptime
    echo "$t0 $t1" > "$SC/out/run-uptime"
    # A record of the runner's own ends the program's last one: the kernel
    # holds back a record without a line end until the next one comes.
    echo "<15>vxsim: end of run" > /dev/kmsg
    vx_kmsg kmsg-after
}

# vx_fault_sweep SECONDS INJECTOR KIND... -- [VAR=VALUE...] PROGRAM [ARG...]: the fault
# sweep. The program runs again once per system call of each KIND that it
# makes, with the injector (a library loaded with LD_PRELOAD) failing that
# call: VXFAULT_NTH = 1, 2, ... until the injector's log stays empty, which
# means the program made fewer calls of that kind. Each run is killed after
# SECONDS, and gets the player as the first run had it: every GPIO line
# unexported and /etc/issue as the scenario gave it (the check's only
# effects on the unit; it never writes flash); the shell functions
# vx_fault_before and vx_fault_after, when the scenario defines them, start
# and stop what runs beside the program (the event device's server).
# Results in out/faults: KIND.N.status, .stdout, .stderr and .fault (the
# injector's line), and KIND.end.status for the run that made no such call.
vx_fault_sweep() {
    secs=$1 injector=$2
    shift 2
    kinds=
    while [ "$1" != "--" ]; do
        kinds="$kinds $1"
        shift
    done
    shift
    dir=$SC/out/faults
    mkdir -p "$dir"
    for kind in $kinds; do
        n=1
        while :; do
            vx_fault_reset || return 1
            if command -v vx_fault_before > /dev/null; then vx_fault_before || return 1; fi
            rm -f "$ROOT/run/vxsim/fault.log"
            status=0
            (exec chroot "$ROOT" /usr/bin/timeout -s KILL "$secs" \
                /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LD_PRELOAD="$injector" \
                VXFAULT_CALL="$kind" VXFAULT_NTH="$n" VXFAULT_LOG=/run/vxsim/fault.log "$@" \
                < /dev/null > "$dir/$kind.$n.stdout" 2> "$dir/$kind.$n.stderr" 7>&-) || status=$?
            if command -v vx_fault_after > /dev/null; then vx_fault_after || return 1; fi
            if [ ! -s "$ROOT/run/vxsim/fault.log" ]; then
                echo $status > "$dir/$kind.end.status"
                rm -f "$dir/$kind.$n.stdout" "$dir/$kind.$n.stderr"
                break
            fi
            echo $status > "$dir/$kind.$n.status"
            cp "$ROOT/run/vxsim/fault.log" "$dir/$kind.$n.fault"
            n=$((n + 1))
        done
    done
}

# vx_fault_reset: the player's state before a run of the fault sweep.
vx_fault_reset() {
    for line in "$ROOT"/sys/class/gpio/gpio[0-9]*; do
        [ -e "$line" ] || continue
        echo "${line##*/gpio}" > "$ROOT/sys/class/gpio/unexport" || return 1
    done
    if [ -f "$SC/in/root/etc/issue" ]; then
        cp "$SC/in/root/etc/issue" "$ROOT/etc/issue"
    else
        rm -f "$ROOT/etc/issue"
    fi
}

# vx_collect PATH...: copies files of the scenario's root to out/files.
vx_collect() {
    for p; do
        if [ -f "$ROOT$p" ]; then
            mkdir -p "$SC/out/files${p%/*}"
            cp "$ROOT$p" "$SC/out/files$p"
            stat -c %a "$ROOT$p" > "$SC/out/files$p.mode"
        fi
    done
}

# vx_capture VXTOOL PARTITIONS: captures the scenario's player with vxtool
# (the partitions named, comma-separated) into out/capture, after the
# program ran.
vx_capture() {
    chroot "$ROOT" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
        "$1" capture -o /run/vxsim/scenario/out/capture --partitions "$2" < /dev/null
}

# vx_shell VXTOOL: an interactive shell in the scenario's root on the
# second serial port (the terminal of the person who ran the runner), after
# the program ran: its outputs in /run/vxsim/scenario/out, the MTD devices
# and vxtool at hand. The boot goes on when the shell exits.
vx_shell() {
    cat > "$ROOT/run/vxsim/shellrc" <<END
PS1='player:\w# '
alias vxtool='$1'
cd /run/vxsim/scenario/out
echo "vxsim: the program ended with status \$(cat status); its output is here (stdout, stderr)."
echo "vxsim: flash: \$(ls /dev/mtd[0-9]* 2>/dev/null | grep -v ro | tr '\n' ' ')- vxtool is $1"
echo "vxsim: leave the shell (exit or Ctrl-D) to power the player off."
END
    setsid -c chroot "$ROOT" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TERM=linux \
        /bin/bash --rcfile /run/vxsim/shellrc -i <> /dev/ttyS1 >&0 2>&1
}

# vx_end NAME: stops the event device's server if a failed step left it
# running, unmounts everything below the scenario's root, innermost first,
# and frees its tmpfs layers. Nothing is removed while anything is still
# mounted there.
vx_end() {
    root=/tmp/$1/root
    vx_stop_server "$root" >&2 || true
    # The root and what is mounted below it, then its layer.
    awk -v base="/tmp/$1" 'index($2, base "/") == 1 { print $2 }' /proc/mounts \
        | sort -r | while read -r m; do
            umount "$m" 2>/dev/null || umount -l "$m"
        done
    if awk -v base="/tmp/$1" 'index($2, base "/") == 1 { found = 1 } END { exit !found }' /proc/mounts; then
        echo "vx_end: /tmp/$1 is still mounted" >&2
        return 1
    fi
    rm -rf "/tmp/$1"
}

. "$1"

# Guest side of the simulated player: the steps a batch script is made of.
# Runs under busybox sh in the initramfs; usage: sh player.sh BATCH-SCRIPT.
#
# A scenario gets its own root: an overlay whose lower layer is the host's
# root file system (the programs and their libraries, read-only over 9p) and
# whose upper layer is a fresh tmpfs, so /etc/issue and everything else the
# program writes stays in the guest and dies with the scenario. Inside it:
# fresh sysfs and devtmpfs, tmpfs /run, the kernel's procfs under
# /run/vxsim/procfs, and a tmpfs /proc that holds the scenario's own files
# (boardid, the renamed mtd table, any override) and symlinks into the real
# procfs for everything else.
#
# Every step prints what failed and returns non-zero; the batch script runs
# a scenario's steps under "set -e" so that the first failure ends it.

NANDSIM_IDS="first_id_byte=0x20 second_id_byte=0xaa third_id_byte=0x00 fourth_id_byte=0x15"
PROCFS=/run/vxsim/procfs
export PATH=/bin:/sbin:/usr/bin:/usr/sbin

# vx_begin NAME: creates the scenario's root; the scenario directory is
# /vx/NAME (inputs under in/, results go to out/).
vx_begin() {
    NAME=$1
    SC=/vx/$1
    ROOT=/tmp/$1/root
    mkdir -p "$SC/out" "/tmp/$1/upper" "/tmp/$1/work" "$ROOT"
    vx_mount -t overlay overlay \
        -o "lowerdir=/host,upperdir=/tmp/$1/upper,workdir=/tmp/$1/work" "$ROOT"
    vx_mount -t sysfs sysfs "$ROOT/sys"
    vx_mount -t devtmpfs devtmpfs "$ROOT/dev"
    # /tmp stays the overlay's: the host's /tmp shows through (a build tree
    # may live there) and whatever the programs write stays in the guest.
    vx_mount -t tmpfs tmpfs "$ROOT/run"
    mkdir -p "$ROOT$PROCFS" "$ROOT/run/vxsim/scenario"
    vx_mount -t proc proc "$ROOT$PROCFS"
    vx_mount -o bind "$SC" "$ROOT/run/vxsim/scenario"
    if [ -d "$SC/in/root" ]; then
        cp -a "$SC/in/root/." "$ROOT/"
    fi
}

vx_mount() {
    for target; do :; done
    mkdir -p "$target"
    mount "$@" || { echo "mount $* failed"; return 1; }
}

# vx_flash PARTS BADBLOCKS: a fresh simulated chip (2048-byte pages, 128 KiB
# erase blocks, 64 bytes of OOB) cut into partitions of PARTS erase blocks
# (comma-separated), with the factory bad blocks BADBLOCKS (chip-wide
# indexes, comma-separated, may be empty). With no PARTS the player has no
# flash at all.
vx_flash() {
    if grep -q '^nandsim ' /proc/modules; then
        rmmod nandsim || { echo "cannot unload nandsim"; return 1; }
    fi
    [ -n "$1" ] || return 0
    # shellcheck disable=SC2086
    insmod /modules/nandsim.ko $NANDSIM_IDS "parts=$1" ${2:+"badblocks=$2"} \
        || { echo "cannot load nandsim parts=$1 badblocks=$2"; return 1; }
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

# vx_eth0 [MAC]: a dummy interface named eth0 with the given address, or
# no eth0 at all.
vx_eth0() {
    ip link del eth0 2>/dev/null || true
    [ -n "${1:-}" ] || return 0
    ip link add eth0 type dummy && ip link set eth0 address "$1" && ip link set eth0 up
}

# vx_kmsg FILE: every record now in the kernel log, in /dev/kmsg format.
vx_kmsg() {
    chroot "$ROOT" /usr/bin/dd if=/dev/kmsg of="/run/vxsim/scenario/out/$1" iflag=nonblock bs=65536 2>/dev/null || true
    return 0
}

# vx_run SECONDS [VAR=VALUE...] -- PROGRAM [ARG...]: runs the program (an
# absolute path) in the scenario's root with a clean environment plus the
# given variables and no standard input, kills it after SECONDS, and records
# its output and status, the kernel log around it and the /proc/meminfo it
# saw.
vx_run() {
    RUN_TIMEOUT=$1
    shift
    # The tmpfs /proc holds no process directories; the program gets its own
    # before it starts: "--" becomes a shell that makes it and execs.
    for a; do
        shift
        if [ "$a" = "--" ]; then
            set -- "$@" /bin/sh -c 'ln -s "'"$PROCFS"'/$$" "/proc/$$" && exec "$@"' vx_run
        else
            set -- "$@" "$a"
        fi
    done
    chroot "$ROOT" /usr/bin/cat /proc/meminfo > "$SC/out/meminfo"
    vx_kmsg kmsg-before
    read -r t0 rest < /proc/uptime
    status=0
    chroot "$ROOT" /usr/bin/timeout -s KILL "$RUN_TIMEOUT" \
        /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root "$@" \
        < /dev/null > "$SC/out/stdout" 2> "$SC/out/stderr" || status=$?
    echo $status > "$SC/out/status"
    read -r t1 rest < /proc/uptime
    echo "$t0 $t1" > "$SC/out/run-uptime"
    vx_kmsg kmsg-after
}

# vx_collect PATH...: copies files of the scenario's root to out/files.
vx_collect() {
    for p; do
        if [ -f "$ROOT$p" ]; then
            mkdir -p "$SC/out/files${p%/*}"
            cp "$ROOT$p" "$SC/out/files$p"
        fi
    done
}

# vx_end NAME: unmounts everything below the scenario's root, innermost
# first, and frees its tmpfs layers. Nothing is removed while anything is
# still mounted there.
vx_end() {
    root=/tmp/$1/root
    awk -v root="$root" '$2 == root || index($2, root "/") == 1 { print $2 }' /proc/mounts \
        | sort -r | while read -r m; do
            umount "$m" 2>/dev/null || umount -l "$m"
        done
    if awk -v root="$root" '$2 == root || index($2, root "/") == 1 { found = 1 } END { exit !found }' /proc/mounts; then
        echo "vx_end: $root is still mounted" >&2
        return 1
    fi
    rm -rf "/tmp/$1"
}

. "$1"

# shellcheck shell=sh
# The simulated player's observer, on a player that boots systemd: run by
# the unit vxsim-observe.service of the scenario's root once systemd has
# started it, under /bin/sh. Waits until the boot is over (every start job
# done, whatever its result), runs the boot's script, records what the
# scenario expects to look at, stops the event device's server and ends
# the boot: a reboot when the scenario boots again, else a power-off. The
# runner wrote observe.conf (BOOT, BOOTS, UNITS, CHECK_UNIT, COLLECT,
# INPUT) and script.BOOT next to this file.
#
# Results go to the scenario's out/, as player.sh leaves them for a program
# run by hand: status (CHECK_UNIT's main process, 128 + the signal when one
# ended it), kmsg-after (the whole kernel log), the files of COLLECT, and
# vxevdev.log; and, of systemd: units/UNIT (systemctl show), journal (the
# boot's messages, one a line), journal.log (with times and senders, for
# people), script (what the boot's script printed, standard error
# included), state (systemctl is-system-running) and times (when systemd
# started, the check's start and end, and the boot's end, in
# CLOCK_MONOTONIC microseconds).

IN=/run/vxsim/scenario/in
OUT=/run/vxsim/scenario/out
EVDEV_NODE=/dev/input/veltrix-gpio
EVDEV_LOG=/run/vxsim/vxevdev.log
EVDEV_PID=/run/vxsim/vxevdev.pid
# shellcheck disable=SC1091 # the runner's
. "$IN/observe.conf"

mkdir -p "$OUT/units"
# Every start job ends: the check's at the latest when its blinking ends in
# the crash, within its unit's time-out.
timeout 300 systemctl is-system-running --wait > "$OUT/state" 2>&1

if [ -f "$IN/script.$BOOT" ]; then
    (cd / && sh "$IN/script.$BOOT") > "$OUT/script" 2>&1 < /dev/null
fi

for unit in $UNITS; do
    systemctl show "$unit" > "$OUT/units/$unit"
done

# The check's main process as a shell reports a program's end.
show() { systemctl show -P "$1" "$CHECK_UNIT"; }
code=$(show ExecMainCode)
case "$code" in
    1) show ExecMainStatus > "$OUT/status" ;;                     # exited
    2|3) echo $((128 + $(show ExecMainStatus))) > "$OUT/status" ;; # killed, dumped
    *) echo "$CHECK_UNIT did not run (ExecMainCode=$code)" > "$OUT/status" ;;
esac
{
    echo "systemd_start $(systemctl show -P UserspaceTimestampMonotonic)"
    echo "check_start $(show ExecMainStartTimestampMonotonic)"
    echo "check_end $(show ExecMainExitTimestampMonotonic)"
    echo "boot_end $(systemctl show -P FinishTimestampMonotonic)"
} > "$OUT/times"

if [ "$INPUT" = 1 ] && [ -f "$EVDEV_PID" ]; then
    kill -TERM "$(cat "$EVDEV_PID")"
    i=0
    while [ -e "$EVDEV_NODE" ] && [ $i -lt 500 ]; do
        i=$((i + 1))
        sleep 0.01
    done
    cp "$EVDEV_LOG" "$OUT/vxevdev.log"
fi

# A record of the runner's own ends the check's last one, which the kernel
# holds back without a line end until the next record comes.
echo "<15>vxsim: end of run" > /dev/kmsg
journalctl -b -o cat --no-pager > "$OUT/journal" 2>&1
journalctl -b -o short-monotonic --no-pager > "$OUT/journal.log" 2>&1
: > "$OUT/kmsg-before"
dd if=/dev/kmsg of="$OUT/kmsg-after" iflag=nonblock bs=65536 2>/dev/null

for p in $COLLECT; do
    if [ -f "$p" ]; then
        mkdir -p "$OUT/files${p%/*}"
        cp "$p" "$OUT/files$p"
        stat -c %a "$p" > "$OUT/files$p.mode"
    fi
done

read -r t rest < /proc/uptime
echo "$t" > /run/vxsim/run/done
sync
if [ "$BOOT" -lt "$BOOTS" ]; then
    systemctl reboot --no-block
else
    systemctl poweroff --no-block
fi

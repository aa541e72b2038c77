#!/usr/bin/env bash
# cli_vs_dbus_send.sh [BUILD_DIR] [RUNS]
# Whole-process time of `cbradioctl presets list` against `dbus-send --print-reply` making the same
# call, on a private bus with a running service. The two are run interleaved, RUNS times each
# (default 20), and the medians and their ratio are printed. Not part of the test suite.
set -uo pipefail
build=$(cd "${1:-build}" && pwd)
runs=${2:-20}
readonly name=com.quorin.service.CBRadioService

work=$(mktemp -d /tmp/cbradio-clibench-XXXXXX)
pids=()
cleanup()
{
    local pid
    for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null; done
    for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null; done
    rm -rf "$work"
}
trap cleanup EXIT

bus=$work/bus
address=unix:path=$bus
mkdir -p "$work/root/tmp"
printf "export DBUS_SESSION_BUS_ADDRESS='%s';\n" "$address" >"$work/root/tmp/envars.sh"
chmod 644 "$work/root/tmp/envars.sh"   # read only when others cannot write it
dbus-daemon --session --nofork --address="$address" >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 100); do [ -S "$bus" ] && break; sleep 0.05; done
CBRADIO_ROOT=$work/root CBRADIO_FOREGROUND=1 "$build/cbradio/cbradiod" >/dev/null 2>&1 &
pids=($! "${pids[@]}")
export DBUS_SESSION_BUS_ADDRESS=$address
ctl=$build/tools/cbradioctl/cbradioctl
for _ in $(seq 100); do
    "$ctl" presets list 2>/dev/null | grep -q CBRadioPresetList && break
    sleep 0.1
done
"$ctl" presets list | grep -q CBRadioPresetList || { echo "the service does not answer" >&2; exit 1; }

# Microseconds one run of the command takes, start to exit.
elapsed()
{
    local start end
    start=$(date +%s%N)
    "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
    end=$(date +%s%N)
    echo $(((end - start) / 1000))
}
median() { sort -n | awk '{v[NR] = $1} END {print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}'; }

ctl_times=() send_times=()
for _ in $(seq "$runs"); do
    ctl_times+=("$(elapsed "$ctl" presets list)")
    send_times+=("$(elapsed dbus-send --session --print-reply --dest=$name /com/quorin/service/CBRadioService \
                         $name.reqCBRGetPresetList string:)")
done
ctl_median=$(printf '%s\n' "${ctl_times[@]}" | median)
send_median=$(printf '%s\n' "${send_times[@]}" | median)
printf 'runs each:                     %d (interleaved)\n' "$runs"
printf 'cbradioctl presets list:       median %s us\n' "$ctl_median"
printf 'dbus-send --print-reply:       median %s us\n' "$send_median"
awk -v a="$ctl_median" -v b="$send_median" 'BEGIN {printf "ratio cbradioctl / dbus-send:   %.2f\n", a / b}'

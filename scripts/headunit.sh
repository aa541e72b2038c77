#!/usr/bin/env bash
# A simulated head unit: a private dbus-daemon, the V850 simulator, the simulated peer services
# (audio manager, key-value store, speech, diagnosis, mode manager, power mode, switches), the
# browser panel and the CB radio service in a temporary CBRADIO_ROOT, wired by envars.sh. Runs a
# short scripted session through cbradioctl (radio on, seek, store and select a preset, squelch)
# with the signals that follow, then through the peers (a weather alert read out, a PTT press
# keying the transmitter, power mode 1 storing the settings, a restart of the service restoring
# them), then stays up for interactive use until interrupted.
#
#   bash scripts/headunit.sh [--once] [--build DIR] [--keep] [--panel-port N]
#
#   --once          end after the scripted session (exit 1 if a step failed)
#   --build DIR     the build folder with the binaries (default: build; built here when missing)
#   --keep          keep the temporary root (logs) after the end
#   --panel-port N  port of the browser panel on 127.0.0.1 (default 8027; 0: any free port)
#
# While it runs, lines typed here go to the V850 simulator ("help" lists its commands); a second
# terminal can use the export lines printed at the end of the session, and drive the peers through
# $CBRADIO_ROOT/peersim.cmd.
set -uo pipefail
cd "$(dirname "$0")/.."

once=0
keep=0
build=build
panel_port=8027
while [ $# -gt 0 ]; do
  case "$1" in
    --once) once=1 ;;
    --keep) keep=1 ;;
    --build) build=$2; shift ;;
    --build=*) build=${1#--build=} ;;
    --panel-port) panel_port=$2; shift ;;
    --panel-port=*) panel_port=${1#--panel-port=} ;;
    -h|--help) sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "headunit: unknown option $1 (see --help)" >&2; exit 2 ;;
  esac
  shift
done

daemon_bin=$build/cbradio/cbradiod
sim_bin=$build/tools/v850sim/v850sim
ctl_bin=$build/tools/cbradioctl/cbradioctl
peers_bin=$build/tools/peersim/peersim
panel_bin=$build/tools/cbradio-panel/cbradio-panel
if [ ! -x "$daemon_bin" ] || [ ! -x "$sim_bin" ] || [ ! -x "$ctl_bin" ] || [ ! -x "$peers_bin" ] ||
   [ ! -x "$panel_bin" ]; then
  if [ ! -f "$build/build.ninja" ]; then
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null || exit 1
  fi
  cmake --build "$build" --target cbradiod v850sim cbradioctl peersim cbradio-panel -- -j"$(nproc)" >/dev/null || exit 1
fi
daemon_bin=$(realpath "$daemon_bin")
sim_bin=$(realpath "$sim_bin")
ctl_bin=$(realpath "$ctl_bin")
peers_bin=$(realpath "$peers_bin")
panel_bin=$(realpath "$panel_bin")

root=$(mktemp -d /tmp/cbradio-headunit-XXXXXX)
mkdir -p "$root/tmp"
pids=()
display=()

stop_daemon() {
  [ -n "${daemon_pid:-}" ] || return 0
  kill -TERM "$daemon_pid" 2>/dev/null
  # The service ends within two seconds of one signal, whenever it comes; KILL is for a hung one.
  for _ in 1 2 3 4 5 6; do
    kill -0 "$daemon_pid" 2>/dev/null || break
    sleep 0.5
  done
  kill -KILL "$daemon_pid" 2>/dev/null
  wait "$daemon_pid" 2>/dev/null
  daemon_pid=
}

cleanup() {
  trap - EXIT INT TERM
  for pid in "${display[@]}"; do kill -TERM "$pid" 2>/dev/null; done
  stop_daemon
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null; done
  wait 2>/dev/null
  if [ "$keep" = 1 ]; then
    echo "headunit: logs kept in $root"
  else
    rm -rf "$root"
  fi
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

fail() { echo "headunit: $*" >&2; exit 1; }

wait_for() {  # wait_for <seconds> <command...>
  local tries=$(( $1 * 20 )); shift
  until "$@"; do
    tries=$((tries - 1))
    [ "$tries" -gt 0 ] || return 1
    sleep 0.05
  done
}

# ---- the bus -------------------------------------------------------------------------------
dbus-daemon --session --nofork --address="unix:path=$root/bus" --print-address=1 \
  >"$root/bus.address" 2>"$root/dbus-daemon.log" &
bus_pid=$!
pids+=("$bus_pid")
wait_for 10 test -s "$root/bus.address" || fail "dbus-daemon did not start (see $root/dbus-daemon.log)"
address=$(head -n1 "$root/bus.address")
cat >"$root/tmp/envars.sh" <<EOF
export DBUS_SESSION_BUS_ADDRESS='$address';
export DBUS_SESSION_BUS_PID=$bus_pid;
EOF
chmod 644 "$root/tmp/envars.sh"   # the daemon ignores it when group or others may write it
export CBRADIO_ROOT=$root
export DBUS_SESSION_BUS_ADDRESS=$address

# ---- the V850 ------------------------------------------------------------------------------
# Its commands come through a FIFO, so this terminal and any other can drive it.
mkfifo "$root/v850sim.cmd"
exec 3<>"$root/v850sim.cmd"
"$sim_bin" --log="$root/v850sim.log" <&3 >"$root/v850sim.out" 2>"$root/v850sim.err" &
pids+=($!)
wait_for 5 test -S "$root/dev/ipc/ch6" || fail "v850sim did not start (see $root/v850sim.err)"
v850() { echo "$*" >&3; }

# ---- the peer services ---------------------------------------------------------------------
# They must be on the bus before the service starts: it reads its settings and asks for the power
# mode, the audio routing and the rear controller only once, at start. Commands come through a
# FIFO as well. Read-outs are answered after 0.2 s instead of the speech service's usual 1.5 s.
mkfifo "$root/peersim.cmd"
exec 4<>"$root/peersim.cmd"
"$peers_bin" --log="$root/peersim.log" --cmd "delay tts 200" <&4 >"$root/peersim.out" 2>"$root/peersim.err" &
pids+=($!)
wait_for 10 grep -qs "# ready:" "$root/peersim.log" || fail "peersim did not start (see $root/peersim.err)"
peer() { echo "$*" >&4; }

# ---- the browser panel ---------------------------------------------------------------------
# Started before the service, so its log shows the service arriving. It prints its address.
"$panel_bin" --port="$panel_port" >"$root/panel.out" 2>"$root/panel.err" &
panel_pid=$!
pids+=("$panel_pid")
panel_url=
if wait_for 5 grep -qs "http://" "$root/panel.out"; then
  panel_url=$(grep -o 'http://[^ ]*' "$root/panel.out" | head -n1)
else
  echo "headunit: the browser panel did not start (see $root/panel.err); going on without it" >&2
fi

# ---- the service ---------------------------------------------------------------------------
# Service messages (no function entry/exit lines) go to the console, captured in cbradiod.log.
printf 'JTTracePersistence 1.1.0\n* 62 8\n' >"$root/trace.tp"
start_daemon() {  # appends to cbradiod.log; waits for the service to come up
  local from
  from=$(grep -c "Up and Running" "$root/cbradiod.log" 2>/dev/null)
  (unset DBUS_SESSION_BUS_ADDRESS; CBRADIO_FOREGROUND=1 exec "$daemon_bin" --tp="$root/trace.tp") \
    >>"$root/cbradiod.log" 2>&1 &
  daemon_pid=$!
  wait_for 15 ups_above "${from:-0}"
}
ups_above() { test "$(grep -c "Up and Running" "$root/cbradiod.log" 2>/dev/null)" -gt "$1"; }

echo "headunit: root $root"
[ -n "$panel_url" ] && echo "headunit: browser panel at $panel_url"
echo "headunit: dbus-daemon, v850sim, peersim and cbradiod started; the service sends its start frames (3 s)..."
start_daemon || fail "cbradiod did not come up (see $root/cbradiod.log)"

# ---- what happens, on the console -----------------------------------------------------------
# Frames and the simulator's answers to typed commands.
tail -n0 -F "$root/v850sim.out" 2>/dev/null > >(sed -u -e 's/^ *[0-9.]* \(RX\|TX\) /  [v850 \1] /' \
  -e '/^  \[v850 /!s/^ *[0-9.]* \{0,1\}/  [v850] /') &
display+=($!)
"$ctl_bin" watch 2>/dev/null > >(sed -u 's/^[0-9:.]* /  [signal] /') &
display+=($!)
# The service's calls to the peers and their answers and signals (blank lines dropped: the
# service's argument texts end in a newline).
tail -n0 -F "$root/peersim.out" 2>/dev/null > >(sed -u -e '/^ *$/d' -e 's/^[0-9:.]* /  [peers] /') &
display+=($!)
sleep 0.3

failures=0
step() {  # step <description> <cbradioctl arguments...>
  [ -n "$1" ] && printf '\n# %s\n' "$1"
  shift
  echo "\$ cbradioctl $*"
  "$ctl_bin" "$@" || failures=$((failures + 1))
  sleep 0.4
}
report() {  # report <description> <v850sim command>
  echo
  echo "# $1"
  echo "v850> $2"
  v850 "$2"
  sleep 0.4
}
tell() {  # tell <description> <peersim command>
  [ -n "$1" ] && printf '\n# %s\n' "$1"
  echo "peers> $2"
  peer "$2"
  sleep 0.4
}
expect() {  # expect <log file> <text>: counts a failed step when the text does not appear in 5 s
  wait_for 5 grep -qF -- "$2" "$root/$1" || { echo "headunit: expected in $1: $2" >&2; failures=$((failures + 1)); }
}

report "the V850 reports the radio module connected (it is then asked for its software version)" "hw back"
step "switch the radio on" on
step "seek up twice" seek up
step "" seek up
step "store the channel as preset 1" presets store 1 3
step "the preset list" presets list
step "seek up, then back to preset 1" seek up
step "" presets select 1
step "squelch up and down" squelch up
step "" squelch down
report "the V850 reports the reception sensitivity" "sens 150"
step "ask for a property" props CBRChannelNumber

report "the V850 reports a weather alert on weather channel 4: the speech service reads it out" "alert 4"
expect peersim.log 'CALL TextToSpeechService.ttsReadout {"data":"A weather alert from the National Weather Service has been received Please tune to the weather band, 162.475 MHz, for more information "'
expect cbradiod.log "ttsReadOut Success"
tell "the rider presses PTT (power mode 3, rider headset routed): the transmitter is keyed and cbTX asked for" "rider press"
expect v850sim.log "RX 0E 01 01"
expect peersim.log 'CALL AudioManager.addInterruptSrc {"exclusive":true,"source":"cbTX"}'
tell "the rider releases it: back to receive, cbTX given back" "rider release"
expect v850sim.log "RX 0E 01 00"
expect peersim.log 'CALL AudioManager.removeInterruptSrc {"source":"cbTX"}'
tell "power mode 1: the service stores channel, squelch and presets" "power 1"
expect peersim.log "CALL PersistentKeyValue.write {\"cbRadioProperties\":["
tell "" "kv get cbRadioProperties"

echo
echo "# restart the service: it reads the stored settings and sends channel and squelch to the V850"
stop_daemon
start_daemon || { echo "headunit: cbradiod did not come up again" >&2; failures=$((failures + 1)); }
expect cbradiod.log "[CBR onCBRadioPersistDataRead] : channel="
step "the preset list after the restart" presets list

cat <<EOF

# ------------------------------------------------------------------------------------------
# The simulated head unit is up.${panel_url:+ The browser panel: $panel_url}
# From a second terminal:
#
#   export CBRADIO_ROOT=$root
#   export DBUS_SESSION_BUS_ADDRESS='$address'
#   $ctl_bin seek down
#   $ctl_bin presets list
#   $ctl_bin watch
#   echo 'sens 220' > \$CBRADIO_ROOT/v850sim.cmd       # V850 reports (v850sim commands)
#   echo 'alert 4'  > \$CBRADIO_ROOT/v850sim.cmd
#   echo 'passenger press' > \$CBRADIO_ROOT/peersim.cmd   # peer services (peersim commands)
#   echo 'diag 1'   > \$CBRADIO_ROOT/peersim.cmd
#
# Logs: $root/cbradiod.log (service trace), $root/v850sim.log (frames),
#       $root/peersim.log (calls to the peer services, their answers and signals)
# ------------------------------------------------------------------------------------------
EOF

if [ "$once" = 1 ]; then
  if [ "$failures" -gt 0 ]; then
    echo "headunit: $failures step(s) failed"
    exit 1
  fi
  exit 0
fi

echo "Type v850sim commands here (help lists them); Ctrl-C ends the head unit."
if [ -t 0 ]; then
  while IFS= read -r line; do
    v850 "$line"
  done
fi
# Without a terminal (or after its end of input) stay up until interrupted.
while kill -0 "$daemon_pid" 2>/dev/null; do
  sleep 1
done
echo "headunit: cbradiod ended"

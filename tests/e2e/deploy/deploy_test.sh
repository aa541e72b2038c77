#!/usr/bin/env bash
# deploy_test.sh CASE BUILD_DIR
# Installs the build into a temporary prefix and checks one aspect of the installed service.
# Exit 0 pass, 1 fail, 77 skipped (a tool the case needs is missing).
set -uo pipefail
case_name=$1
build=$2
readonly name=com.quorin.service.CBRadioService
readonly object=/com/quorin/service/CBRadioService

work=$(mktemp -d /tmp/cbradio-deploy-XXXXXX)
prefix=$work/prefix
pids=()
cleanup()
{
    local pid proc
    # A daemon that the bus started is not our child: it is found by the unique path of its
    # program in this test's prefix.
    for proc in /proc/[0-9]*; do
        grep -qsF "$prefix/bin/cbradiod" "$proc/cmdline" && pids=("${proc#/proc/}" "${pids[@]}")
    done
    for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null; done
    for pid in "${pids[@]}"; do
        wait "$pid" 2>/dev/null
        wait_for 3 eval "! kill -0 $pid 2>/dev/null" || kill -KILL "$pid" 2>/dev/null
    done
    rm -rf "$work"
}
trap cleanup EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }
skip() { echo "SKIP: $*" >&2; exit 77; }

install_prefix()
{
    cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 \
        || { cat "$work/install.log" >&2; fail "cmake --install (are all programs built?)"; }
}

# Waits up to $1 seconds for the command that follows to succeed.
wait_for()
{
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        ((SECONDS < deadline)) || return 1
        sleep 0.1
    done
}

# start_bus CONFIG SOCKET EXTRA_XML: a private session bus that lets everybody do everything, with
# EXTRA_XML (service directories, included policies) after that default.
start_bus()
{
    cat >"$1" <<XML
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$2</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
    <allow user="*"/>
  </policy>
  $3
</busconfig>
XML
    CBRADIO_ROOT=${root:-} dbus-daemon --config-file="$1" --nofork >>"$work/daemons.log" 2>&1 &
    pids+=($!)
    wait_for 10 test -S "$2" || { cat "$work/daemons.log" >&2; fail "dbus-daemon did not start"; }
}

case_layout()
{
    install_prefix
    local f
    for f in bin/cbradiod bin/cbradioctl bin/tracesrv bin/v850sim bin/peersim \
             share/dbus-1/interfaces/$name.xml share/dbus-1/services/$name.service \
             share/dbus-1/system.d/$name.conf lib/systemd/user/cbradiod.service \
             share/man/man8/cbradiod.8 share/man/man1/cbradioctl.1 share/man/man1/tracesrv.1 \
             share/man/man1/v850sim.1 share/man/man1/peersim.1 \
             share/bash-completion/completions/cbradioctl include/svcipc.h; do
        [ -e "$prefix/$f" ] || fail "$f not installed"
    done
    local service=$prefix/share/dbus-1/services/$name.service
    grep -qx "Exec=/usr/bin/env CBRADIO_FOREGROUND=1 $prefix/bin/cbradiod" "$service" \
        || fail "the activation file does not start the installed daemon: $(cat "$service")"
    grep -qx "SystemdService=cbradiod.service" "$service" || fail "no SystemdService= in $service"
    grep -qx "ExecStart=$prefix/bin/cbradiod" "$prefix/lib/systemd/user/cbradiod.service" \
        || fail "the unit does not start the installed daemon"
    # The completion offers exactly the interface's methods after 'call' and its signals after
    # 'watch'.
    complete_words()
    {
        bash -c 'source "$1"; shift; COMP_WORDS=(cbradioctl "$@"); COMP_CWORD=$#
            _cbradioctl; printf "%s\n" "${COMPREPLY[@]}" | sort' \
            _ "$prefix/share/bash-completion/completions/cbradioctl" "$@"
    }
    local xml=$prefix/share/dbus-1/interfaces/$name.xml kind
    for kind in call:method watch:signal; do
        diff <(complete_words "${kind%%:*}" "") \
             <(grep -o "<${kind#*:} name=\"[^\"]*\"" "$xml" | cut -d'"' -f2 | sort) \
            || fail "completion after '${kind%%:*}' differs from the interface's ${kind#*:}s"
    done
    [ "$(complete_words presets s)" = "$(printf 'select\nstore')" ] \
        || fail "completion after 'presets s': $(complete_words presets s)"
}

case_unit()
{
    command -v systemd-analyze >/dev/null || skip "systemd-analyze is not installed"
    install_prefix
    mkdir -m 700 "$work/runtime"
    # The unit's man: link must resolve, so the installed man pages are searched too.
    MANPATH=$prefix/share/man: XDG_RUNTIME_DIR=$work/runtime \
        systemd-analyze --user verify "$prefix/lib/systemd/user/cbradiod.service" \
        || fail "systemd-analyze verify refused the unit"
}

case_library()
{
    command -v cc >/dev/null && command -v pkg-config >/dev/null || skip "cc or pkg-config missing"
    install_prefix
    # A C program of another service, built only from what was installed.
    cat >"$work/client.c" <<'C'
#include <svcipc.h>
#include <stdio.h>
int main(void)
{
    SVCIPC_tConnection conn = 0;
    if (SVCIPC_initialize() != 0)
        return 1;
    /* No bus in the environment: a failure status, not a crash. */
    SVCIPC_tError status = SVCIPC_getConnection(SVCIPC_CONNECTION_SESSION, 0, &conn);
    printf("%s\n", SVCIPC_errorText(status));
    return SVCIPC_shutdown() == 0 && status == SVCIPC_ERR_NO_CONNECTION ? 0 : 1;
}
C
    local flags
    flags=$(PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name svcipc.pc)") \
            pkg-config --cflags --libs svcipc) || fail "pkg-config does not know svcipc"
    # shellcheck disable=SC2086
    cc -std=c99 -Wall -Werror -o "$work/client" "$work/client.c" $flags \
        || fail "a C client does not build with pkg-config svcipc"
    env -u DBUS_SESSION_BUS_ADDRESS "$work/client" || fail "the C client failed"
}

case_activation()
{
    install_prefix
    root=$work/root
    local bus=$work/bus
    # The activated daemon takes its bus from the activation environment; an empty root prefix
    # keeps it from any environment file of the machine.
    mkdir -p "$root/tmp"
    start_bus "$work/bus.conf" "$bus" "<servicedir>$prefix/share/dbus-1/services</servicedir>"
    local address=unix:path=$bus
    bus_call() { dbus-send --bus="$address" --print-reply "$@"; }
    bus_call --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner string:$name \
        | grep -q "boolean false" || fail "the service runs before it is called"

    # The very first call starts the service and is answered: the service list, or failure
    # while its settings are still being read. Without an answer dbus-send waits out 20 s.
    local reply
    reply=$(bus_call --reply-timeout=20000 --dest=$name $object $name.reqCBRGetPresetList string:"") \
        || { cat "$work/daemons.log" >&2; fail "the activating call got no reply"; }
    echo "$reply" | grep -Eq 'CBRadioPresetList|"code":1' || fail "unexpected first reply: $reply"

    local pid
    pid=$(bus_call --dest=org.freedesktop.DBus / org.freedesktop.DBus.GetConnectionUnixProcessID \
          string:$name | awk '/uint32/ {print $2}')
    [ -n "$pid" ] || fail "the service left the bus after its first reply"
    grep -q "$prefix/bin/cbradiod" "/proc/$pid/cmdline" 2>/dev/null \
        || fail "the name is owned by something else than the installed daemon"
}

# The installed system-bus policy on a bus that otherwise allows everything: as installed, nobody
# but the user "cbradio" may own the name; with that user and the callers' group renamed to this
# test's own, the daemon owns it and a member of the group calls it while any other user is refused.
case_policy()
{
    command -v setpriv >/dev/null && [ "$(id -u)" = 0 ] || skip "needs root and setpriv"
    install_prefix
    chmod 755 "$work"  # the other user reaches the bus socket
    local policy=$prefix/share/dbus-1/system.d/$name.conf
    local ours=$work/policy-ours.conf
    sed -e "s/user=\"cbradio\"/user=\"$(id -un)\"/" -e "s/group=\"cbradio-hmi\"/group=\"$(id -gn)\"/" \
        "$policy" >"$ours"
    ! cmp -s "$policy" "$ours" || fail "the policy names neither the user cbradio nor the group cbradio-hmi"

    local bus
    for bus in installed ours; do
        local conf=$policy
        [ $bus = ours ] && conf=$ours
        start_bus "$work/$bus.conf" "$work/$bus" "<include>$conf</include>"
        mkdir -p "$work/root-$bus/tmp"
        printf "export DBUS_SESSION_BUS_ADDRESS='unix:path=%s';\n" "$work/$bus" >"$work/root-$bus/tmp/envars.sh"
        chmod 644 "$work/root-$bus/tmp/envars.sh"   # read only when others cannot write it
        CBRADIO_ROOT=$work/root-$bus CBRADIO_FOREGROUND=1 "$prefix/bin/cbradiod" >>"$work/daemons.log" 2>&1 &
        pids=($! "${pids[@]}")
    done
    local installed=unix:path=$work/installed ours_bus=unix:path=$work/ours
    local call=(--print-reply --reply-timeout=5000 --dest=$name $object $name.reqCBRGetPresetList string:)
    wait_for 15 eval 'dbus-send --bus=$ours_bus "${call[@]}" >/dev/null 2>&1' \
        || fail "the service's user could not serve on the bus (or its group could not call it)"
    local denied
    denied=$(setpriv --reuid=65534 --regid=65534 --clear-groups dbus-send --bus="$ours_bus" "${call[@]}" 2>&1)
    echo "$denied" | grep -q AccessDenied || fail "a user outside the group was not refused: $denied"

    dbus-send --bus="$installed" --print-reply --dest=org.freedesktop.DBus / \
        org.freedesktop.DBus.NameHasOwner string:$name | grep -q "boolean false" \
        || fail "a user other than cbradio owns the name"
    denied=$(dbus-send --bus="$installed" --print-reply --dest=org.freedesktop.DBus / \
             org.freedesktop.DBus.RequestName string:$name uint32:4 2>&1)
    echo "$denied" | grep -q AccessDenied || fail "the name was not refused to another user: $denied"
}

case_package()
{
    command -v dpkg-shlibdeps >/dev/null || skip "dpkg-shlibdeps (dpkg-dev) is not installed"
    local out=$work/package
    (cd "$build" && cpack -G DEB -B "$out" >"$work/cpack.log" 2>&1) \
        || { cat "$work/cpack.log" >&2; fail "cpack -G DEB"; }
    local deb
    deb=$(ls "$out"/*.deb 2>/dev/null | head -n 1)
    [ -n "$deb" ] || fail "cpack made no .deb"
    local depends
    depends=$(dpkg-deb -f "$deb" Depends)
    # Computed from the binaries: the libraries they link appear without anyone listing them.
    for lib in libc6 libdbus-1-3 libjsoncpp; do
        echo "$depends" | grep -q "$lib" || fail "Depends lacks $lib: $depends"
    done
    dpkg-deb -x "$deb" "$work/unpacked"
    grep -qx "Exec=/usr/bin/env CBRADIO_FOREGROUND=1 /usr/bin/cbradiod" \
        "$work/unpacked/usr/share/dbus-1/services/$name.service" \
        || fail "the packaged activation file does not start /usr/bin/cbradiod"
    [ -x "$work/unpacked/usr/bin/cbradiod" ] && [ -f "$work/unpacked/usr/lib/systemd/user/cbradiod.service" ] \
        || fail "the package lacks the daemon or its unit"
}

"case_$case_name"
echo "PASS: $case_name"

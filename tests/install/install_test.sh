#!/usr/bin/env bash
# Installs the build tree into a scratch prefix and uses it as a user of the installed files only:
# every file is where GNU install directories put it; programs of another project build against
# each library through pkg-config and through find_package; the installed setvane talks to the
# installed configsrvc serving the installed model; every manual page renders without a warning;
# the completion offers what it should.
#
# Usage: install_test.sh BUILD_DIR CONSUMER_SOURCE_DIR
set -euo pipefail
build=$1
consumer_src=$2
scratch=$(mktemp -d /tmp/install-test.XXXXXX)
service_pid=
cleanup() {
    [[ -z $service_pid ]] || kill -KILL "$service_pid" 2>/dev/null || true
    rm -rf "$scratch"
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*" >&2
    exit 1
}
prefix=$scratch/prefix
unset LD_LIBRARY_PATH

cmake --install "$build" --prefix "$prefix" >"$scratch/install.log"
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$build/CMakeCache.txt")
source=$(sed -n "s/^setvane_SOURCE_DIR:[A-Z]*=//p" "$build/CMakeCache.txt")

# --- every file where it belongs
expected=(
    bin/setvane bin/vanectl sbin/configsrvc
    "$libdir/libmsgpass.so.1" "$libdir/libmsgpass.so" "$libdir/libconfigclient.so.1"
    "$libdir/libconfigclient.so" "$libdir/liblogmsg.a" "$libdir/libconfigif_proto.a"
    include/msgpass.h include/logmsg.h include/ConfigSession.h
    include/Common/protobuf/v3/common.proto include/Common/protobuf/v3/configservice.proto
    include/Common/protobuf/v3/configservice.pb.h include/Common/protobuf/v3/ConfigProtocol.h
    "$libdir/pkgconfig/msgpass.pc" "$libdir/pkgconfig/logmsg.pc" "$libdir/pkgconfig/configclient.pc"
    "$libdir/cmake/msgpass/msgpassConfig.cmake" "$libdir/cmake/logmsg/logmsgConfig.cmake"
    "$libdir/cmake/configclient/configclientConfig.cmake"
    share/man/man1/setvane.1 share/man/man1/vanectl.1 share/man/man8/configsrvc.8
    share/man/man5/configsrvc-model.5 share/bash-completion/completions/setvane
    share/bash-completion/completions/vanectl share/bash-completion/completions/configsrvc
    etc/configsrvc/model.xml lib/systemd/system/configsrvc.service
    share/configsrvc/models/example-device.xml share/configsrvc/models/device-model.rng
)
for file in "${expected[@]}"; do
    [[ -f $prefix/$file ]] || fail "not installed: $file"
done
# No text file may point back into the build or source tree.
if grep -rlI -e "$build" -e "$source" "$prefix" >"$scratch/leaks"; then
    fail "installed files that name the build or source tree: $(cat "$scratch/leaks")"
fi

# --- the programs find their library beside them, not in the build tree
for program in bin/setvane bin/vanectl sbin/configsrvc; do
    found=$(ldd "$prefix/$program" | sed -n 's/.*libmsgpass.so.1 => \([^ ]*\).*/\1/p')
    [[ $(realpath "$found") == $(realpath "$prefix/$libdir/libmsgpass.so.1") ]] ||
        fail "$program loads libmsgpass from '$found'"
done

# --- programs of another project: pkg-config, then find_package
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
mkdir "$scratch/pc"
cc -o "$scratch/pc/msgpass_user" "$consumer_src/msgpass_user.c" $(pkg-config --cflags --libs msgpass)
cc -o "$scratch/pc/logmsg_user" "$consumer_src/logmsg_user.c" $(pkg-config --cflags --libs logmsg)
c++ -std=c++17 -o "$scratch/pc/configclient_user" "$consumer_src/configclient_user.cpp" \
    $(pkg-config --cflags --libs configclient)
cmake -S "$consumer_src" -B "$scratch/cm" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    >"$scratch/consumer-configure.log" || { cat "$scratch/consumer-configure.log"; fail "find_package"; }
cmake --build "$scratch/cm" >"$scratch/consumer-build.log" ||
    { cat "$scratch/consumer-build.log"; fail "building against the CMake packages"; }

run_consumer() {
    LD_LIBRARY_PATH=$prefix/$libdir "$@"
}
for kind in pc cm; do
    out=$(run_consumer "$scratch/$kind/msgpass_user")
    [[ $out == "$(run_consumer "$scratch/pc/msgpass_user")" && -n $out ]] ||
        fail "$kind msgpass_user printed '$out'"
    err=$(run_consumer "$scratch/$kind/logmsg_user" 2>&1 >/dev/null)
    [[ $err == "<4>consumer: check: installed logmsg works" ]] ||
        fail "$kind logmsg_user wrote '$err'"
done

# Completion as bash runs it: the candidates for the last word of a command line.
completions=$prefix/share/bash-completion/completions
complete_words() { # PROGRAM WORD... : the completions of the last word
    bash -c '
        source /usr/share/bash-completion/bash_completion
        source "$1/$2"
        shift
        COMP_WORDS=("${@:2}"); COMP_CWORD=$(($# - 2)); COMP_LINE="${*:2}"; COMP_POINT=${#COMP_LINE}
        "_$1" "$1" "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}"
        printf "%s\n" "${COMPREPLY[@]}" | sort | tr "\n" " "
    ' _ "$completions" "$@"
}
check_completion() { # EXPECTED PROGRAM WORD...
    local expected=$1
    shift
    local got
    got=$(complete_words "$@")
    [[ $got == "$expected" ]] || fail "completing '$*': '$got', expected '$expected'"
}

# --- the installed service, serving the installed model, answers the installed tool and library
export MSGPASS_DIR=$scratch/ep
mkdir -m 0755 "$MSGPASS_DIR"
"$prefix/sbin/configsrvc" --model "$prefix/etc/configsrvc/model.xml" --state "$scratch/state" \
    --log stderr 2>"$scratch/service.log" &
service_pid=$!
for _ in $(seq 100); do
    [[ -S $MSGPASS_DIR/ConfigSrvc ]] && break
    kill -0 "$service_pid" 2>/dev/null || { cat "$scratch/service.log"; fail "configsrvc ended"; }
    sleep 0.05
done
setvane=$prefix/bin/setvane
[[ $("$setvane" system hostname) == room-unit ]] || fail "setvane read of the default"
"$setvane" system hostname -v installed-unit || fail "setvane write, status $?"
[[ $("$setvane" system hostname) == installed-unit ]] || fail "setvane did not read its write"
for kind in pc cm; do
    [[ $(run_consumer "$scratch/$kind/configclient_user" system hostname) == installed-unit ]] ||
        fail "$kind configclient_user did not read the value"
done
status=0
"$setvane" system no-such-variable 2>/dev/null || status=$?
[[ $status == 249 ]] || fail "unknown variable: status $status, not 249"
[[ $("$prefix/bin/vanectl" get system.hostname) == installed-unit ]] || fail "vanectl get"

# --- completion of path words, asked of the running service through the installed vanectl
PATH=$prefix/bin:$PATH check_completion "1 2 3 address dhcp dns enabled gateway mtu netmask " \
    setvane setvane network interface ""
PATH=$prefix/bin:$PATH check_completion "mtu " setvane setvane -r kAdmin network interface 2 m
PATH=$prefix/bin:$PATH check_completion "audio.microphone audio.mute " vanectl vanectl get audio.m
kill -TERM "$service_pid"
wait "$service_pid" || fail "configsrvc stopped with status $?"
service_pid=

# --- manual pages: lint-clean and rendered by man without a warning
for page in "$prefix"/share/man/man*/*; do
    lint=$(mandoc -T lint -W warning "$page" 2>&1) || true
    [[ -z $lint ]] || fail "mandoc: $lint"
    warnings=$(groff -ww -z -man "$page" 2>&1)
    [[ -z $warnings ]] || fail "groff: $warnings"
    rendered=$(MANWIDTH=80 MANROFFOPT=-ww man -l "$page" 2>&1 >/dev/null)
    [[ -z $rendered ]] || fail "man -l $page: $rendered"
done

# --- completion: role names, options, and files for the service's model
check_completion "kStartup kSystem " setvane setvane -r kS
check_completion "--read --role " setvane setvane --r
check_completion "auto device stderr " configsrvc configsrvc --log ""
echo "install test passed"

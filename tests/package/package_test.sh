#!/usr/bin/env bash
# Installs the Debian packages of build/package/debs (cmake --workflow --preset package) into a
# clean Debian 12 root, with apt resolving their dependencies, and checks that the system unit
# finds everything it names: the program, the model under /etc, the state and endpoint
# directories, its manual pages; that it is enabled; that the service started as the unit starts
# it answers the packaged setvane; and that a purge takes it all away again.
#
# The clean root is a debootstrap minbase root with systemd, made once (network, a few minutes) and kept in
# build/package/debian12 with the packages apt fetched for it; each run installs into a fresh copy.
# Skipped, with the reason, where that cannot be done: not root, no debootstrap, no network for
# the first root.
#
# Usage: tests/package/package_test.sh   (from anywhere; run after the package workflow)
set -euo pipefail
cd "$(dirname "$0")/../.."
work=$PWD/build/package
debs=$work/debs
base=$work/debian12
root=$work/clean-root

skip() {
    echo "package test SKIPPED: $*"
    exit 0
}
fail() {
    echo "package test FAILED: $*" >&2
    exit 1
}
# Runs a command line inside the root, in a mount namespace of its own that holds /proc and /dev
# for it, so that nothing stays mounted when it ends.
in_root() {
    unshare --mount --propagation private -- bash -c '
        root=$1; shift
        mount -t proc proc "$root/proc"
        mount --rbind /dev "$root/dev"
        exec chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"
    ' _ "$root" "$@"
}

trap 'echo "package test FAILED at line $LINENO" >&2' ERR
[[ $(id -u) -eq 0 ]] || skip "it needs root to make and enter a chroot"
command -v debootstrap >/dev/null || skip "debootstrap is not installed (scripts/bootstrap)"
shopt -s nullglob
packages=("$debs"/*.deb)
[[ ${#packages[@]} -gt 0 ]] || fail "no packages in $debs: run cmake --workflow --preset package"

if [[ ! -d $base ]]; then
    echo "package test: making a Debian 12 minbase root in $base (once)"
    rm -rf "$base.partial"
    # Debian 12 as it boots: minbase and systemd, which also brings the unit's targets. In a
    # mount namespace of its own, so that what it mounts in the root goes with it, also on failure.
    if ! unshare --mount --propagation private -- debootstrap --variant=minbase --include=systemd \
        bookworm "$base.partial" "${DEBIAN_MIRROR:-http://deb.debian.org/debian}" \
        >"$work/debootstrap.log" 2>&1; then
        skip "debootstrap could not make a Debian 12 root (no network?), see $work/debootstrap.log"
    fi
    root=$base.partial in_root apt-get update -qq >>"$work/debootstrap.log" 2>&1 ||
        skip "apt-get update in the new root failed (no network?), see $work/debootstrap.log"
    mv "$base.partial" "$base"
fi

rm -rf "$root"
cp -a "$base" "$root"
trap 'rm -rf "$root"' EXIT
mkdir "$root/tmp/debs"
cp "${packages[@]}" "$root/tmp/debs/"
names=()
for deb in "${packages[@]}"; do
    names+=("$(dpkg-deb -f "$deb" Package)")
done

# --- apt installs every package with what it depends on, from their declared dependencies alone
in_root sh -c 'apt-get install -y -qq --no-install-recommends /tmp/debs/*.deb' >"$work/install.log" 2>&1 ||
    { tail -20 "$work/install.log"; fail "apt-get install of the packages"; }
# What apt fetched stays with the base root, so that the next run needs no network.
cp -n "$root"/var/cache/apt/archives/*.deb "$base/var/cache/apt/archives/" 2>/dev/null || true
for name in "${names[@]}"; do
    status=$(in_root dpkg-query -W -f='${Status}' "$name")
    [[ $status == "install ok installed" ]] || fail "$name: $status"
done
in_root dpkg --audit | grep . && fail "dpkg --audit reports problems"

# --- what the unit names is there
unit=
for dir in /usr/lib/systemd/system /lib/systemd/system; do
    [[ -f $root$dir/configsrvc.service ]] && unit=$dir/configsrvc.service
done
[[ -n $unit ]] || fail "no configsrvc.service installed"
unit_text=$(cat "$root$unit")
setting() { sed -n "s/^$1=//p" <<<"$unit_text"; }
read -r -a exec_start <<<"$(setting ExecStart)"
program=${exec_start[0]}
option() { # the value after option $1 on the ExecStart line
    local i
    for ((i = 1; i < ${#exec_start[@]} - 1; i++)); do
        if [[ ${exec_start[i]} == "$1" ]]; then
            echo "${exec_start[i + 1]}"
        fi
    done
}
model=$(option --model)
state=$(option --state)
[[ -x $root$program ]] || fail "ExecStart names $program, which is not installed"
[[ -f $root$model && $model == /etc/* ]] || fail "the unit's model $model is not a file under /etc"
in_root dpkg-query -W -f='${Conffiles}' configsrvc | grep -q " $model " ||
    fail "$model is not a conffile of configsrvc"
[[ $state == /var/lib/$(setting StateDirectory) ]] || fail "--state $state is not the StateDirectory"
[[ /run/$(setting RuntimeDirectory) == /run/msgpass ]] || fail "RuntimeDirectory is not libmsgpass's /run/msgpass"
[[ $(setting Type) == notify ]] || fail "the unit does not wait for readiness"
for page in $(setting Documentation); do
    page=${page#man:}
    ls "$root/usr/share/man/man${page: -2:1}/${page%(*}.${page: -2:1}"* >/dev/null 2>&1 ||
        fail "manual page $page is not installed"
done
[[ -L $root/etc/systemd/system/multi-user.target.wants/configsrvc.service ]] ||
    fail "configsrvc.service is not enabled"
if command -v systemd-analyze >/dev/null; then
    systemd-analyze verify --man=no --root="$root" "$unit" >"$work/verify.log" 2>&1 ||
        { cat "$work/verify.log"; fail "systemd-analyze verify $unit"; }
fi

# --- started as the unit starts it, the service answers the packaged tools
# As far as the unit's sandbox can be had without systemd: no capabilities, no new privileges, a
# network namespace of its own, the unit's umask.
[[ $(setting CapabilityBoundingSet) == "" && $(setting PrivateNetwork) == yes ]] ||
    fail "the unit's sandbox changed: make the start below do as it does"
sandbox="unshare --net -- setpriv --no-new-privs --bounding-set=-all --inh-caps=-all --"
in_root sh -c '
    mkdir -p -m 0755 /run/'"$(setting RuntimeDirectory)"'
    mkdir -p -m 0700 '"$state"'
    umask '"$(setting UMask)"'
    '"$sandbox ${exec_start[*]}"' 2>/tmp/service.log &
    service=$!
    i=0
    until [ -S /run/msgpass/ConfigSrvc ]; do
        i=$((i + 1)); [ $i -lt 100 ] && kill -0 $service 2>/dev/null || { cat /tmp/service.log; exit 1; }
        sleep 0.05
    done
    set -e
    [ "$(setvane system hostname)" = room-unit ]
    setvane system hostname -v packaged
    [ "$(setvane system hostname)" = packaged ]
    [ "$(vanectl get system.hostname)" = packaged ]
    # Any user reads what kUser may read.
    [ "$(setpriv --reuid=65534 --regid=65534 --clear-groups setvane system hostname)" = packaged ]
    kill -TERM $service
    wait $service
' >"$work/service.log" 2>&1 || { cat "$work/service.log"; fail "the packaged service did not serve setvane"; }

# --- a purge takes the service, its unit link, its model and its values away
in_root apt-get purge -y -qq configsrvc >"$work/purge.log" 2>&1 || fail "apt-get purge configsrvc"
for gone in "$program" "$model" "$state" /etc/systemd/system/multi-user.target.wants/configsrvc.service; do
    [[ ! -e $root$gone && ! -L $root$gone ]] || fail "$gone is still there after the purge"
done
echo "package test passed: ${names[*]}"

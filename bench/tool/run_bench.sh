#!/usr/bin/env bash
# Times a whole `setvane` read against a stand-in service that answers at once: as installed (the
# loader finds libmsgpass through its cache) and from the build tree, beside /bin/true, the runtime
# floor (the same runtime linked, nothing of ours), the schema floor (the same with our two schema
# files registered) and two minimal clients, in one hyperfine run, all pinned to one CPU (service
# and clients alike); then the peak RSS of each.
#
# Usage: bench/tool/run_bench.sh [BUILD_DIR] [RUNS]     (default: build/release, 1000)
#
# The installed layout is built in BENCH_INSTALLED_BUILD (default build/installed, configured for
# the system prefix /usr when missing), installed into a scratch root, and its library folder put
# in a loader cache of the scratch root's own, which a private mount namespace puts in place of
# /etc/ld.so.cache for the timed runs only: the machine's own files are never changed. That needs
# root; without it the installed figure is left out.
#
# The endpoint directory is made under BENCH_TMPDIR, by default /dev/shm when that is a tmpfs, as
# the device's /run/msgpass is.
set -euo pipefail

build=${1:-build/release}
runs=${2:-1000}
cpu=${BENCH_CPU:-0}
setvane=$build/tool/setvane
standin=$build/standin/standin_service
bin=$build/bench/tool
for program in "$setvane" "$standin" "$bin/peak_rss" "$bin/raw_client" "$bin/raw_server" \
               "$bin/msgpass_client" "$bin/runtime_floor" "$bin/schema_floor"; do
    [[ -x $program ]] || { echo "missing $program: build target bench_tool_programs first" >&2; exit 1; }
done

tmp_base=${BENCH_TMPDIR:-}
if [[ -z $tmp_base ]]; then
    tmp_base=/tmp
    [[ $(stat -f -c %T /dev/shm 2>/dev/null) == tmpfs ]] && tmp_base=/dev/shm
fi
work=$(mktemp -d "$tmp_base/setvane-bench-XXXXXX")
echo "endpoint directory on $(stat -f -c %T "$work"): $work"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

export MSGPASS_DIR=$work
# A ReadRsp with kErrNoError and the value "on".
taskset -c "$cpu" "$standin" --reply-hex 5000a201026f6e >"$work/standin.out" &
pids+=($!)
taskset -c "$cpu" "$bin/raw_server" "$work/raw.sock" >"$work/raw.out" &
pids+=($!)
for ready in "$work/standin.out" "$work/raw.out"; do
    for _ in $(seq 100); do grep -q ready "$ready" 2>/dev/null && break; sleep 0.05; done
    grep -q ready "$ready" || { echo "a server did not start" >&2; exit 1; }
done
[[ $("$setvane" x) == on ]] || { echo "setvane read did not answer 'on'" >&2; exit 1; }

# The installed layout: setvane and libmsgpass as the system packages lay them out.
installed=
if [[ $(id -u) == 0 ]]; then
    ibuild=${BENCH_INSTALLED_BUILD:-build/installed}
    [[ -f $ibuild/build.ninja ]] ||
        cmake -S . -B "$ibuild" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
              -DBUILD_TESTING=OFF >/dev/null
    cmake --build "$ibuild" --target setvane msgpass >/dev/null
    # On the build tree's file system, not the tmpfs of the endpoints, so that both are read alike.
    root=$(readlink -f "$ibuild")/root
    rm -rf "$root"
    for component in setvane msgpass-runtime; do
        DESTDIR=$root cmake --install "$ibuild" --component "$component" >/dev/null
    done
    libdir=$(dirname "$(find "$root" -name 'libmsgpass.so.1' | head -1)")
    printf '%s\ninclude /etc/ld.so.conf\n' "$libdir" >"$work/ld.so.conf"
    ldconfig -C "$work/ld.so.cache" -f "$work/ld.so.conf"
    installed=$root/usr/bin/setvane
    if readelf -d "$installed" | grep -q RUNPATH; then
        echo "the installed setvane has a RUNPATH: the loader would search" >&2; exit 1
    fi
else
    echo "not root: the installed layout is left out (it needs a private mount namespace)"
fi

# How many pages a run maps around each page fault depends on how the program's file sits in the
# page cache: a freshly linked or copied file maps differently from one read back from disk. Drop
# the programs' cached pages so that each is read back as it would be after a reboot.
for program in "$setvane" "$bin/raw_client" "$bin/msgpass_client" "$bin/runtime_floor" \
               "$bin/schema_floor" "$build/platform/msgpass/libmsgpass.so" \
               ${installed:+"$installed" "$libdir/libmsgpass.so.1"}; do
    file=$(readlink -f "$program")
    sync "$file" && dd if="$file" iflag=nocache count=0 status=none 2>/dev/null || true
done

commands=(-n true /bin/true -n floor "$bin/runtime_floor" -n schema_floor "$bin/schema_floor")
[[ -n $installed ]] && commands+=(-n installed "$installed x")
commands+=(-n setvane "$setvane x" -n raw_client "$bin/raw_client $work/raw.sock"
           -n msgpass_client "$bin/msgpass_client")
timed=(taskset -c "$cpu" hyperfine -N --style basic --warmup 100 --runs "$runs"
       --export-csv "$work/times.csv" "${commands[@]}")
if [[ -n $installed ]]; then
    # shellcheck disable=SC2016 # expanded by the inner shell
    unshare -m --propagation private sh -c 'mount --bind "$0" /etc/ld.so.cache && exec "$@"' \
        "$work/ld.so.cache" "${timed[@]}" >"$work/hyperfine.out"
else
    "${timed[@]}" >"$work/hyperfine.out"
fi
cat "$work/hyperfine.out"

# hyperfine's CSV: command,mean,stddev,median,user,system,min,max (seconds).
median() { awk -F, -v name="$1" '$1 == name { print $4 }' "$work/times.csv"; }
true_median=$(median true)
floor_median=$(median floor)
ratio() {
    awk -v t="$(median "$1")" -v b="$true_median" -v f="$floor_median" \
        'BEGIN { printf "%.3f ms  %.2fx /bin/true  %.2fx floor", t * 1000, t / b, t / f }'
}
echo
for name in true floor schema_floor installed setvane raw_client msgpass_client; do
    [[ -n $(median "$name") ]] && printf 'median %-15s %s\n' "$name" "$(ratio "$name")"
done
echo "(target: installed <= 1.25x floor)"

echo
rss() { "$bin/peak_rss" 50 "$@"; }
echo "peak RSS /bin/true       $(rss /bin/true) KiB"
echo "peak RSS runtime_floor   $(rss "$bin/runtime_floor") KiB"
echo "peak RSS schema_floor    $(rss "$bin/schema_floor") KiB"
echo "peak RSS setvane x       $(rss "$setvane" x) KiB  (target <= 3072 KiB)"
echo "peak RSS raw_client      $(rss "$bin/raw_client" "$work/raw.sock") KiB"
echo "peak RSS msgpass_client  $(rss "$bin/msgpass_client") KiB"

#!/usr/bin/env bash
# Times a whole `setvane` read against a stand-in service that answers at once, beside
# /bin/true and a minimal raw-socket client, in the same hyperfine run, all pinned to one CPU
# (service and clients alike); then the peak RSS of each.
#
# Usage: bench/tool/run_bench.sh [BUILD_DIR] [RUNS]     (default: build/release, 1000)
#
# The endpoint directory is made under BENCH_TMPDIR, by default /dev/shm when that is a tmpfs, as
# the device's /run/msgpass is. On ext4 each run creates and deletes a socket file, and ext4
# avoids reusing recently freed inodes, so over a long series every new one takes longer to find.
set -euo pipefail

build=${1:-build/release}
runs=${2:-1000}
cpu=${BENCH_CPU:-0}
setvane=$build/tool/setvane
standin=$build/standin/standin_service
bin=$build/bench/tool
for program in "$setvane" "$standin" "$bin/peak_rss" "$bin/raw_client" "$bin/raw_server" \
               "$bin/msgpass_client"; do
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

# How many pages a run maps around each page fault depends on how the program's file sits in the
# page cache: a freshly linked or copied file maps differently from one read back from disk. Drop
# the programs' cached pages so that each is read back as it would be after a reboot.
for program in "$setvane" "$bin/raw_client" "$bin/msgpass_client" \
               "$build/platform/msgpass/libmsgpass.so"; do
    file=$(readlink -f "$program")
    sync "$file" && dd if="$file" iflag=nocache count=0 status=none 2>/dev/null || true
done

taskset -c "$cpu" hyperfine -N --style basic --warmup 100 --runs "$runs" \
    --export-csv "$work/times.csv" \
    -n true /bin/true \
    -n setvane "$setvane x" \
    -n raw_client "$bin/raw_client $work/raw.sock" \
    -n msgpass_client "$bin/msgpass_client" >"$work/hyperfine.out"
cat "$work/hyperfine.out"

# hyperfine's CSV: command,mean,stddev,median,user,system,min,max (seconds).
median() { awk -F, -v name="$1" '$1 == name { print $4 }' "$work/times.csv"; }
true_median=$(median true)
setvane_median=$(median setvane)
raw_median=$(median raw_client)
msgpass_median=$(median msgpass_client)
echo
echo "median /bin/true   $(awk -v t="$true_median" 'BEGIN { printf "%.3f ms", t * 1000 }')"
echo "median setvane x   $(awk -v t="$setvane_median" -v b="$true_median" 'BEGIN { printf "%.3f ms  (%.2fx /bin/true, target <= 1.5x)", t * 1000, t / b }')"
ratio() { awk -v t="$1" -v b="$true_median" 'BEGIN { printf "%.3f ms  (%.2fx /bin/true)", t * 1000, t / b }'; }
echo "median raw_client  $(ratio "$raw_median")"
echo "median msgpass_client  $(ratio "$msgpass_median")"

echo
rss() { "$bin/peak_rss" 50 "$@"; }
echo "peak RSS /bin/true   $(rss /bin/true) KiB"
echo "peak RSS setvane x   $(rss "$setvane" x) KiB  (target <= 3072 KiB)"
echo "peak RSS raw_client  $(rss "$bin/raw_client" "$work/raw.sock") KiB"
echo "peak RSS msgpass_client  $(rss "$bin/msgpass_client") KiB"

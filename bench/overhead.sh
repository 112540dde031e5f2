#!/usr/bin/env bash
# Overhead of watching the machine: an exec-heavy and a file-heavy loop,
# timed with hyperfine under each monitor in turn, in one run:
#   none        no monitor
#   lumo-notify lumo-es, process and file notifications (device control)
#   lumo-all    lumo-es, every feature (data protection too: AUTH_EXEC
#               for print filters, local-socket connects)
#   auditd      auditd logging every execve
#   fapolicyd   fapolicyd (permissive, so it checks everything but denies
#               nothing)
# The monitors take turns over several rounds, so that drift in a shared
# machine's speed falls on all of them alike; each ratio is to the mean of
# "none" of the same round and of the next, and the median of the rounds
# is reported (the median of
# each round's runs, which a stray slow run does not move). Beside the
# ratios, each monitor's CPU seconds over a round (its processes; the
# kernel's own audit thread is not counted), its peak resident memory and
# threads, the events the daemon received (a cheap run that missed events
# shows), and the latency one exec of /bin/true takes (median and 99th
# percentile of 2000, with what it adds to no monitor's). Needs root.
#   LUMO_BENCH_ROUNDS=N  rounds (default 7)
#   LUMO_BENCH_RUNS=N    hyperfine runs per case and round (default 5)
#   LUMO_BENCH_ONLY="none lumo-all"   a subset of the monitors
#   LUMO_BENCH_STORM=1   instead: lumo-es (every feature) under 4 parallel
#                        exec loops and 2 file loops of 25000 files; its
#                        memory and threads at the peak and 30 s after
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" -eq 0 ] || { echo "bench/overhead.sh needs root" >&2; exit 1; }

. scripts/deps.sh
install_deps build
install_deps bpf
install_deps bench
# The peers are started and stopped here, one at a time; where their
# packages started them as services, they are stopped for the run.
if [ -d /run/systemd/system ]; then systemctl stop auditd fapolicyd 2>/dev/null || true; fi

build=${LUMO_BENCH_BUILD:-build-bench}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMO_BUILD_TESTS=OFF \
  -DLUMO_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target lumo-es lumo-refdaemon lumo-execlatency >/dev/null
bin=$(cd "$build" && pwd)

rounds=${LUMO_BENCH_ROUNDS:-7}
runs=${LUMO_BENCH_RUNS:-5}
monitors=${LUMO_BENCH_ONLY:-none lumo-notify lumo-all auditd fapolicyd}
work=$(mktemp -d /var/tmp/lumo-bench.XXXXXX)
out=$work/results
mkdir -p "$out" "$work/files" "$work/run" "$work/root/opt/tarvex/lumo/app"
chmod 777 "$work/run"

exec_loop="bash -c 'for i in \$(seq 300); do /bin/true; done'"
# Create, write, close, rename and delete, all in one process (the
# interpreter itself: a shim on the PATH would be timed too).
file_loop="/usr/bin/python3 -c 'import os
os.chdir(\"$work/files\")
for i in range(3000):
    with open(\"f%d\" % i, \"w\") as f: f.write(\"data\")
    os.rename(\"f%d\" % i, \"g%d\" % i)
    os.unlink(\"g%d\" % i)'"

pids=()
stop_all() {
  for p in "${pids[@]}"; do kill -KILL "$p" 2>/dev/null || true; done
  # Reaped here, so the shell does not report them killed.
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
  pids=()
  watched=()
  rm -f "$work/daemon.out"
  auditctl -D >/dev/null 2>&1 || true
  [ -f "$work/auditd.pid" ] && kill "$(cat "$work/auditd.pid")" 2>/dev/null || true
  rm -f "$work/auditd.pid"
  sleep 1
}
trap 'stop_all; rm -rf "$work"' EXIT

# The monitor's processes, for its CPU time; the first is the one whose
# memory and threads are reported.
watched=()

# utime plus stime of one process, read past its command name (which may
# hold spaces); nothing for one that is gone.
ticks_of() { sed 's/^.*) //' "/proc/$1/stat" 2>/dev/null | awk '{print $12 + $13}'; }

cpu_ticks() {
  local total=0 p c t
  for p in "$@"; do
    # The stall watchdog and other children are the monitor's too.
    for c in "$p" $(cat /proc/"$p"/task/*/children 2>/dev/null); do
      t=$(ticks_of "$c")
      total=$((total + ${t:-0}))
    done
  done
  echo "$total"
}

# Samples the first watched process's threads until stopped; the highest
# count goes to $1.
sample_threads() {
  local file=$1 most=0 n
  while [ -e "$file.on" ]; do
    n=$(awk '/^Threads:/{print $2}' "/proc/${watched[0]}/status" 2>/dev/null || echo 0)
    [ "${n:-0}" -gt "$most" ] && most=$n && echo "$most" >"$file"
    sleep 0.2
  done
}

# Times one round of monitor $1 in round $2 and writes its figures.
measure() {
  local m=$1 round=$2 ticks0 ticks1 events0=0 events1=0 hwm=0 threads=0
  if [ ${#watched[@]} -gt 0 ]; then
    echo 5 >"/proc/${watched[0]}/clear_refs" 2>/dev/null || true  # resets the peak
    touch "$out/threads.on"
    echo 0 >"$out/threads"
    sample_threads "$out/threads" &
  fi
  [ -f "$work/daemon.out" ] && events0=$(grep -c '"event"' "$work/daemon.out" || true)
  ticks0=$(cpu_ticks "${watched[@]}")
  hyperfine --style basic --warmup 2 --runs "$runs" --export-json "$out/$m.$round.json" \
    -n exec "$exec_loop" -n files "$file_loop" | grep -E "Time" || true
  # The loops' events digested first: what one exec costs, not a backlog.
  sleep 2
  "$bin/lumo-execlatency" 2000 >"$out/$m.$round.latency"
  ticks1=$(cpu_ticks "${watched[@]}")
  if [ ${#watched[@]} -gt 0 ]; then
    rm -f "$out/threads.on"
    wait "$!" 2>/dev/null || true
    threads=$(cat "$out/threads")
    hwm=$(awk '/^VmHWM:/{print $2}' "/proc/${watched[0]}/status" 2>/dev/null || echo 0)
  fi
  [ -f "$work/daemon.out" ] && events1=$(grep -c '"event"' "$work/daemon.out" || true)
  echo "{\"cpu_s\":$(awk -v t=$((ticks1 - ticks0)) -v hz="$(getconf CLK_TCK)" \
      'BEGIN { printf "%.3f", t / hz }')," \
    "\"hwm_kb\":${hwm:-0},\"threads\":${threads:-0},\"events\":$((events1 - events0))}" \
    >"$out/$m.$round.stats"
}

start_lumo() {
  local policy=$1
  "$bin/lumo-refdaemon" --runtime-dir "$work/run" --policy "$policy" --print-verdict allow \
    >"$work/daemon.out" 2>&1 </dev/null &
  pids+=($!)
  LUMO_LOG_STDERR=1 LUMO_PRODUCT_ROOT="$work/root" LUMO_RUNTIME_DIR="$work/run" "$bin/lumo-es" \
    >"$work/lumo-es.log" 2>&1 &
  pids+=($!)
  watched=("${pids[-1]}" "${pids[-2]}")
  for _ in $(seq 100); do grep -q '"reply":"setPolicy' "$work/daemon.out" 2>/dev/null && break; sleep 0.1; done
  grep -q '"reply":"setPolicy' "$work/daemon.out" || { echo "lumo-es did not take the policy" >&2; exit 1; }
  # The daemon's JSON lines are part of the cost; they go to a file.
}

start_monitor() {
  case $1 in
    none) ;;
    lumo-notify) start_lumo dup=0,webcontrol=0,devicecontrol=1,antitampering=0 ;;
    lumo-all) start_lumo dup=1,webcontrol=1,devicecontrol=1,antitampering=0 ;;
    auditd)
      auditd -n >/dev/null 2>&1 &
      echo $! >"$work/auditd.pid"
      watched=("$!")
      sleep 1
      auditctl -D >/dev/null
      auditctl -a always,exit -F arch=b64 -S execve -k lumo-bench >/dev/null ;;
    fapolicyd)
      # As root, with filesystem marks: where root lacks CAP_SYS_RESOURCE
      # (some containers and sandboxes) fapolicyd can't drop to its own
      # user keeping it. The changed settings are bound over its config in
      # a mount namespace of its own, so /etc is left as it is; filesystem
      # marks see every namespace's opens. Denials (the default rules
      # deny_audit untrusted executables) are logged as its syslog would.
      [ -f /etc/fapolicyd/compiled.rules ] || fagenrules >/dev/null 2>&1 || true
      sed -e 's/^uid = .*/uid = root/' -e 's/^gid = .*/gid = root/' \
        -e 's/^allow_filesystem_mark = .*/allow_filesystem_mark = 1/' \
        /etc/fapolicyd/fapolicyd.conf >"$work/fapolicyd.conf"
      unshare -m sh -c "mount --bind '$work/fapolicyd.conf' /etc/fapolicyd/fapolicyd.conf &&
        exec fapolicyd --permissive --debug-deny" >"$work/fapolicyd.log" 2>&1 &
      pids+=($!)
      watched=("$!")
      sleep 3
      if ! kill -0 "${pids[-1]}" 2>/dev/null; then
        echo "fapolicyd does not run here: $(grep -v '^#' "$work/fapolicyd.log" | tail -1)"
        return 1
      fi ;;
  esac
}

if [ -n "${LUMO_BENCH_STORM:-}" ]; then
  start_monitor lumo-all
  echo "=== storm: 4 exec loops of 1500, 2 file loops of 25000 files, under lumo-es (every feature)"
  echo 5 >"/proc/${watched[0]}/clear_refs"
  rss_kb() { awk -v k="$1" '$1 == k":" {print $2}' "/proc/${watched[0]}/status"; }
  before=$(rss_kb VmRSS)
  touch "$out/threads.on"
  echo 0 >"$out/threads"
  sample_threads "$out/threads" &
  sampler=$!
  start=$(date +%s.%N)
  loops=()
  for _ in 1 2 3 4; do
    bash -c 'for i in $(seq 1500); do /bin/true; done' &
    loops+=($!)
  done
  for k in 1 2; do
    /usr/bin/python3 -c "import os
os.chdir('$work/files')
for i in range(25000):
    n = 's$k-%d' % i
    with open(n, 'w') as f: f.write('data')
    os.rename(n, 'g' + n)
    os.unlink('g' + n)" &
    loops+=($!)
  done
  wait "${loops[@]}"
  took=$(echo "$(date +%s.%N) - $start" | bc)
  peak=$(rss_kb VmHWM)
  sleep 30
  rm -f "$out/threads.on"
  wait "$sampler" 2>/dev/null || true
  printf '%-34s %s\n' "storm took" "$took s" \
    "resident before" "$((before / 1024)) MB" \
    "resident at the peak" "$((peak / 1024)) MB" \
    "resident 30 s after" "$(($(rss_kb VmRSS) / 1024)) MB" \
    "threads at the most" "$(cat "$out/threads")" \
    "threads 30 s after" "$(awk '/^Threads:/{print $2}' "/proc/${watched[0]}/status")" \
    "events the daemon received" "$(grep -c '"event"' "$work/daemon.out" || true)" \
    "log lines of lost events" "$(grep -ciE 'lost|overflow|overran' "$work/lumo-es.log" || true)"
  exit 0
fi

declare -A skipped=()
ran=()
for round in $(seq "$rounds"); do
  for m in $monitors; do
    [ -n "${skipped[$m]:-}" ] && continue
    echo "=== round $round: $m"
    if ! start_monitor "$m"; then
      skipped[$m]=1
      stop_all
      continue
    fi
    [ "$round" -eq 1 ] && ran+=("$m")
    measure "$m" "$round"
    stop_all
  done
done

python3 - "$out" "$rounds" "${ran[@]}" <<'PY'
import json, os, statistics, sys
out, rounds, monitors = sys.argv[1], int(sys.argv[2]), sys.argv[3:]
means = {}  # (monitor, loop) -> per-round medians
stats = {}  # monitor -> per-round figures
lat = {}    # monitor -> per-round exec latencies
for m in monitors:
    for r in range(1, rounds + 1):
        with open(os.path.join(out, "%s.%d.json" % (m, r))) as f:
            for result in json.load(f)["results"]:
                means.setdefault((m, result["command"]), []).append(result["median"])
        with open(os.path.join(out, "%s.%d.stats" % (m, r))) as f:
            stats.setdefault(m, []).append(json.load(f))
        with open(os.path.join(out, "%s.%d.latency" % (m, r))) as f:
            lat.setdefault(m, []).append(json.load(f))
med = statistics.median
print()
print("median of %d rounds (each the median of its runs); ratio = to the mean of no monitor in"
      " the same round and the next (none's own ratio is the noise), with the rounds' lowest and"
      " highest" % rounds)
print("%-12s %10s %21s %10s %21s" % ("monitor", "exec loop", "ratio", "file loop", "ratio"))
for m in monitors:
    row = [m]
    for w in ("exec", "files"):
        mine = means[(m, w)]
        base = means.get(("none", w), mine)
        # Each round's monitors run between its "none" and the next
        # round's: the mean of the two takes out the drift between them.
        base = [(b + nb) / 2 for b, nb in zip(base, base[1:] + base[-1:])]
        ratios = [a / b for a, b in zip(mine, base)]
        row += ["%.3f s" % med(mine),
                "%.3fx (%.2f-%.2f)" % (med(ratios), min(ratios), max(ratios))]
    print("%-12s %10s %21s %10s %21s" % tuple(row))
print()
print("per round: the monitor's CPU seconds and events received (medians), its peak resident"
      " memory and threads (highest); one exec of /bin/true, median and 99th percentile, and"
      " what the monitor adds to no monitor's in the same round (medians)")
print("%-12s %8s %8s %8s %9s %9s %9s %10s %10s" % ("monitor", "cpu", "peak", "threads", "events",
      "exec p50", "exec p99", "added p50", "added p99"))
for m in monitors:
    s = stats[m]
    p50 = [l["p50_us"] for l in lat[m]]
    p99 = [l["p99_us"] for l in lat[m]]
    base50 = [l["p50_us"] for l in lat.get("none", lat[m])]
    base99 = [l["p99_us"] for l in lat.get("none", lat[m])]
    print("%-12s %7.2fs %6dMB %8d %9d %7.0fus %7.0fus %8.0fus %8.0fus" % (
        m, med([x["cpu_s"] for x in s]), max(x["hwm_kb"] for x in s) // 1024,
        max(x["threads"] for x in s), med([x["events"] for x in s]), med(p50), med(p99),
        med([a - b for a, b in zip(p50, base50)]), med([a - b for a, b in zip(p99, base99)])))
PY

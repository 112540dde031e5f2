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
# machine's speed falls on all of them alike; each ratio is to "none" of
# the same round, and the median of the rounds is reported (the median of
# each round's runs, which a stray slow run does not move). Needs root.
#   LUMO_BENCH_ROUNDS=N  rounds (default 5)
#   LUMO_BENCH_RUNS=N    hyperfine runs per case and round (default 5)
#   LUMO_BENCH_ONLY="none lumo-all"   a subset of the monitors
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
cmake --build "$build" -j "$(nproc)" --target lumo-es lumo-refdaemon >/dev/null
bin=$(cd "$build" && pwd)

rounds=${LUMO_BENCH_ROUNDS:-5}
runs=${LUMO_BENCH_RUNS:-5}
monitors=${LUMO_BENCH_ONLY:-none lumo-notify lumo-all auditd fapolicyd}
work=$(mktemp -d /var/tmp/lumo-bench.XXXXXX)
out=$work/results
mkdir -p "$out" "$work/files" "$work/run" "$work/root/opt/tarvex/lumo/app"
chmod 777 "$work/run"

exec_loop="bash -c 'for i in \$(seq 300); do /bin/true; done'"
# Create, write, close, rename and delete, all in one process.
file_loop="python3 -c 'import os
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
  auditctl -D >/dev/null 2>&1 || true
  [ -f "$work/auditd.pid" ] && kill "$(cat "$work/auditd.pid")" 2>/dev/null || true
  rm -f "$work/auditd.pid"
  sleep 1
}
trap 'stop_all; rm -rf "$work"' EXIT

start_lumo() {
  local policy=$1
  "$bin/lumo-refdaemon" --runtime-dir "$work/run" --policy "$policy" --print-verdict allow \
    >"$work/daemon.out" 2>&1 </dev/null &
  pids+=($!)
  LUMO_LOG_STDERR=1 LUMO_PRODUCT_ROOT="$work/root" LUMO_RUNTIME_DIR="$work/run" "$bin/lumo-es" \
    >"$work/lumo-es.log" 2>&1 &
  pids+=($!)
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
      sleep 3
      if ! kill -0 "${pids[-1]}" 2>/dev/null; then
        echo "fapolicyd does not run here: $(grep -v '^#' "$work/fapolicyd.log" | tail -1)"
        return 1
      fi ;;
  esac
}

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
    hyperfine --style basic --warmup 2 --runs "$runs" --export-json "$out/$m.$round.json" \
      -n exec "$exec_loop" -n files "$file_loop" | grep -E "Time" || true
    stop_all
  done
done

python3 - "$out" "$rounds" "${ran[@]}" <<'PY'
import json, os, statistics, sys
out, rounds, monitors = sys.argv[1], int(sys.argv[2]), sys.argv[3:]
means = {}  # (monitor, loop) -> per-round means
for m in monitors:
    for r in range(1, rounds + 1):
        with open(os.path.join(out, "%s.%d.json" % (m, r))) as f:
            for result in json.load(f)["results"]:
                means.setdefault((m, result["command"]), []).append(result["median"])
print()
print("median of %d rounds (each the median of its runs); ratio = to no monitor in the same"
      " round, with the rounds' lowest and highest" % rounds)
print("%-12s %10s %21s %10s %21s" % ("monitor", "exec loop", "ratio", "file loop", "ratio"))
for m in monitors:
    row = [m]
    for w in ("exec", "files"):
        mine = means[(m, w)]
        base = means.get(("none", w), mine)
        ratios = [a / b for a, b in zip(mine, base)]
        row += ["%.3f s" % statistics.median(mine),
                "%.3fx (%.2f-%.2f)" % (statistics.median(ratios), min(ratios), max(ratios))]
    print("%-12s %10s %21s %10s %21s" % tuple(row))
PY

#!/usr/bin/env bash
# Builds the Debian package, boots a real systemd in systemd-nspawn over this
# machine's own tree, installs the package there with apt-get and checks the
# service as an admin would meet it: running with its status line, events
# reaching the reference daemon, journal fields, the watchdog killing and
# restarting a stopped extension, and stop and purge leaving nothing.
# Needs root; says SKIP and exits 0 where it can't run.
#   LUMO_PACKAGE_BUILD=DIR   build folder (default build-package)
set -euo pipefail
cd "$(dirname "$0")/.."
src=$(pwd)

skip() { echo "SKIP: container test: $*"; exit 0; }
fail() { echo "FAIL: container test: $*" >&2; exit 1; }
step() { echo "--- $*"; }

[ "$(id -u)" -eq 0 ] || skip "needs root (systemd-nspawn, mounts, cgroups)"
[ "$(uname -s)" = Linux ] || skip "Linux only"

. scripts/deps.sh
install_deps build
install_deps bpf
install_deps package
command -v systemd-nspawn >/dev/null || skip "systemd-nspawn not available"

step "package"
build=${LUMO_PACKAGE_BUILD:-build-package}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMO_BUILD_TESTS=OFF \
  -DLUMO_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc)"
(cd "$build" && rm -f ./*.deb && cpack -G DEB >/dev/null)
deb=$(cd "$build" && ls ./*.deb)
deb=${deb#./}
echo "$deb"
step "lintian"
lintian_out=$(lintian "$build/$deb" 2>&1 | grep -v "running with root privileges" || true)
[ -z "$lintian_out" ] || echo "$lintian_out"
if grep -q "^E:" <<<"$lintian_out"; then fail "lintian reports errors"; fi

# The container: this machine's tree under a private bind mount, booted with
# a volatile overlay, no network, and an empty /etc (no host services) but
# for what dpkg and apt need: users, groups and their own settings.
name=lumo-ct-$$
work=$(mktemp -d /tmp/lumo-ct.XXXXXX)
root=$work/root
cgroups=(/sys/fs/cgroup/unified/$name /sys/fs/cgroup/systemd/$name)
nspawn=""
leader=""
stopped=""

cleanup() {
  set +e
  # Never leave a stopped extension behind: every exec of the host waits on it.
  [ -n "$stopped" ] && kill -KILL "$stopped" 2>/dev/null
  if [ -n "$nspawn" ] && kill -0 "$nspawn" 2>/dev/null; then
    kill -TERM "$nspawn"
    for _ in $(seq 100); do kill -0 "$nspawn" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$nspawn" 2>/dev/null
    wait "$nspawn" 2>/dev/null
  fi
  mountpoint -q "$root" && umount -R "$root"
  local dir
  for dir in "${cgroups[@]}"; do
    [ -d "$dir" ] || continue
    find "$dir" -mindepth 1 -depth -type d -exec rmdir {} + 2>/dev/null
    rmdir "$dir" 2>/dev/null
  done
  rm -rf /run/systemd/nspawn/propagate/"$name" /run/systemd/nspawn/unix-export/"$name" "$work"
  # nspawn's own folders, when no other container uses them.
  rmdir /run/systemd/nspawn/* /run/systemd/nspawn 2>/dev/null
}
trap cleanup EXIT
trap "exit 130" INT TERM

mkdir -p "$root" "$work/pkg"
cp "$build/$deb" "$work/pkg/"
mount --bind / "$root"
mount --make-private "$root"
od -An -N16 -tx1 /dev/urandom | tr -d ' \n' >"$work/machine-id"
echo >>"$work/machine-id"
mkfifo "$work/never"

step "boot"
(
  # A cgroup of its own on both hierarchies: the host mixes v1 and v2, and
  # the cgroup BPF attach needs a unified hierarchy inside.
  for dir in "${cgroups[@]}"; do
    mkdir -p "$dir" && echo "$BASHPID" >"$dir/cgroup.procs" || true
  done
  export SYSTEMD_NSPAWN_UNIFIED_HIERARCHY=1
  # nspawn's seccomp filter refuses fanotify, BPF and taking another
  # process's descriptor (the stall watchdog's pidfd_getfd).
  exec systemd-nspawn --quiet -D "$root" --volatile=overlay --machine="$name" \
    --register=no --keep-unit --private-network --tmpfs=/etc \
    --bind-ro="$work/machine-id:/etc/machine-id" --bind-ro="$work/pkg:/srv/lumo" \
    --bind-ro=/etc/passwd --bind-ro=/etc/group --bind-ro=/etc/apt --bind-ro=/etc/dpkg \
    --bind=/sys/fs/bpf --capability=all \
    --system-call-filter='bpf perf_event_open fanotify_init fanotify_mark pidfd_getfd' \
    -b systemd.firstboot=off systemd.mask=systemd-machine-id-commit.service \
    systemd.mask=systemd-binfmt.service systemd.mask=systemd-modules-load.service
) >"$work/nspawn.log" 2>&1 </dev/null 3>&- &
nspawn=$!

for _ in $(seq 100); do
  leader=$(ps -o pid=,comm= --ppid "$nspawn" 2>/dev/null | awk '$2 == "systemd" { print $1 }' || true)
  [ -n "$leader" ] && break
  sleep 0.1
done
[ -n "$leader" ] || { cat "$work/nspawn.log"; fail "the container did not start"; }

inside() { timeout 120 nsenter -t "$leader" -a "$@"; }
state=""
for _ in $(seq 150); do
  state=$(inside systemctl is-system-running 2>/dev/null || true)
  case $state in running | degraded) break ;; esac
  sleep 0.2
done
echo "system: $state"
case $state in running | degraded) ;; *) fail "systemd did not finish booting ($state)" ;; esac
inside mount -t bpf bpf /sys/fs/bpf 2>/dev/null || true
# A policy-rc.d (images made for containers have one) would keep the
# package's units from starting; this booted system is a real one. The
# overlay is the container's own: the host keeps its file.
inside rm -f /usr/sbin/policy-rc.d

step "apt-get install ./$deb"
inside sh -c "cd /srv/lumo && DEBIAN_FRONTEND=noninteractive apt-get install -y -q ./$deb" \
  >"$work/install.log" 2>&1 || { cat "$work/install.log"; fail "apt-get install failed"; }
grep -E "^(Setting up|Created symlink)" "$work/install.log" || true

step "active (running) with its status"
# The permission group opens once the daemon's policy asks for print checks.
status=""
wanted='Status: "mode normal;.*auth=fanotify.*link up'
for _ in $(seq 100); do
  status=$(inside systemctl status --no-pager lumo-es 2>/dev/null || true)
  grep -q "Active: active (running)" <<<"$status" && grep -q "$wanted" <<<"$status" && break
  sleep 0.2
done
grep -E "Active:|Status:" <<<"$status" || true
grep -q "Active: active (running)" <<<"$status" || fail "lumo-es is not active (running)"
grep -q "$wanted" <<<"$status" ||
  fail "no status with mode, tiers and link"

step "an exec inside reaches the reference daemon"
mark=lumo-ct-mark-$$
inside systemd-run --wait --pipe --quiet --collect /bin/echo "$mark" >/dev/null
found=""
for _ in $(seq 50); do
  found=$(inside journalctl -q -u lumo-refdaemon -o cat 2>/dev/null |
    grep '"event":"handleProcessStartEvent:","path":"[/a-z]*/echo"' | grep -m1 "$mark" || true)
  [ -n "$found" ] && break
  sleep 0.2
done
[ -n "$found" ] || fail "no exec event of /bin/echo $mark"
echo "${found:0:160}..."

step "journal fields"
fields=$(inside journalctl -q -u lumo-es -o verbose | grep -E "^ *LUMO_(SUBSYSTEM|CATEGORY)=" |
  sort -u)
echo $fields
grep -q "LUMO_SUBSYSTEM=com.tarvex.lumo" <<<"$fields" || fail "no LUMO_SUBSYSTEM field"
grep -q "LUMO_CATEGORY=" <<<"$fields" || fail "no LUMO_CATEGORY field"

step "metrics in the textfile collector's folder"
prom=/var/lib/prometheus/node-exporter/lumo-es.prom
inside sh -c "mkdir -p ${prom%/*} && echo LUMO_METRICS_FILE=$prom >>/etc/default/lumo-es"
inside systemctl restart lumo-es
metrics=""
for _ in $(seq 100); do
  metrics=$(inside cat "$prom" 2>/dev/null || true)
  grep -q "^lumo_es_link_up 1" <<<"$metrics" && break
  sleep 0.2
done
grep -q "^lumo_es_link_up 1" <<<"$metrics" || fail "no metrics file with the link up at $prom"
grep -c "^# HELP" <<<"$metrics" | sed 's/$/ metrics documented/'

step "the reference daemon restarts alone; lumo-es reconnects"
es_before=$(inside systemctl show -p MainPID --value lumo-es)
connections=$(inside systemctl show -p StatusText --value lumo-es | grep -o "([0-9]* connection" || true)
inside systemctl restart lumo-refdaemon
status=""
for _ in $(seq 50); do
  status=$(inside systemctl show -p StatusText --value lumo-es)
  grep -q "link up" <<<"$status" && ! grep -q "$connections" <<<"$status" && break
  sleep 0.2
done
echo "$status"
[ "$(inside systemctl show -p MainPID --value lumo-es)" = "$es_before" ] ||
  fail "lumo-es was restarted with the daemon"
grep -q "link up" <<<"$status" && ! grep -q "$connections" <<<"$status" ||
  fail "lumo-es did not reconnect"

step "the watchdog kills and restarts a stopped lumo-es"
before=$(inside systemctl show -p MainPID --value lumo-es)
host_pid=""
# The main process, by its pid inside (its stall watchdog runs the same
# program).
for dir in /proc/[0-9]*; do
  [ "$(readlink "$dir/exe" 2>/dev/null)" = /usr/sbin/lumo-es ] || continue
  [[ $dir/ns/pid -ef /proc/$leader/ns/pid ]] || continue
  [ "$(awk '/^NSpid:/ {print $NF}' "$dir/status" 2>/dev/null)" = "$before" ] || continue
  host_pid=${dir#/proc/}
done
[ -n "$host_pid" ] || fail "lumo-es (pid $before inside) not found"
# From here until it is gone every exec of the machine may wait on it:
# shell builtins only, with a bound of our own past the watchdog's.
exec 7<>"$work/never"
stopped=$host_pid
start=$EPOCHREALTIME
kill -STOP "$host_pid"
while [ -e "/proc/$host_pid" ]; do
  elapsed=$(( ${EPOCHREALTIME/./} - ${start/./} ))
  if [ "$elapsed" -gt 30000000 ]; then
    kill -KILL "$host_pid"
    stopped=""
    fail "still there 30 s after SIGSTOP; killed it"
  fi
  read -t 0.1 -u 7 || true
done
stopped=""
gone=$(( (${EPOCHREALTIME/./} - ${start/./}) / 1000 ))
exec 7>&-
echo "killed ${gone} ms after SIGSTOP"
inside systemd-run --wait --pipe --quiet --collect /bin/true || fail "execs are not released"
after=""
for _ in $(seq 100); do
  after=$(inside systemctl show -p MainPID --value lumo-es)
  [ "$after" != 0 ] && [ "$after" != "$before" ] &&
    inside systemctl is-active --quiet lumo-es && break
  sleep 0.2
done
[ "$after" != 0 ] && [ "$after" != "$before" ] || fail "lumo-es was not restarted"
timeout_line=$(inside journalctl -q -u lumo-es -o cat | grep -i "watchdog timeout" || true)
[ -n "$timeout_line" ] || fail "no watchdog timeout in the journal"
echo "$timeout_line"
# Long before, its own stall watchdog had released the waiting execs.
release_line=$(inside journalctl -q -u lumo-es -o cat | grep "Stall watchdog: the permission" || true)
[ -n "$release_line" ] || fail "the stall watchdog did not release the permission group"
echo "$release_line"
echo "restarted: pid $before -> $after"

step "systemctl stop, apt-get purge"
inside systemctl stop lumo-es lumo-refdaemon
left=$(inside pgrep -a -f 'lumo-(es|refdaemon)' || true)
[ -z "$left" ] || fail "still running after stop: $left"
inside sh -c "DEBIAN_FRONTEND=noninteractive apt-get purge -y -q lumo-es" >"$work/purge.log" 2>&1 ||
  { cat "$work/purge.log"; fail "apt-get purge failed"; }
left=$(inside pgrep -a -f 'lumo-(es|refdaemon)' || true)
[ -z "$left" ] || fail "still running after purge: $left"
behind=$(inside sh -c "ls -d /usr/sbin/lumo-* /lib/systemd/system/lumo-* /etc/default/lumo-* \
  /etc/systemd/system/*/lumo-* /etc/systemd/system/lumo-* /opt/tarvex /run/tarvex \
  /usr/share/doc/lumo-es /var/lib/systemd/deb-systemd-helper-*/*lumo* $prom \
  /var/lib/systemd/deb-systemd-helper-*/*/*lumo* 2>/dev/null" || true)
[ -z "$behind" ] || fail "left behind after purge: $behind"
inside dpkg-query -W -f='${Status}\n' lumo-es 2>/dev/null | grep -q "not-installed" ||
  ! inside dpkg-query -W lumo-es >/dev/null 2>&1 || fail "dpkg still knows lumo-es"
echo "nothing running, nothing left"
echo "PASS: container test"

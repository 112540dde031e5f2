#!/usr/bin/env bash
# Runs the product on this machine: installs what it needs, builds, starts
# lumo-es as root and the reference daemon in front of you, showing its JSON
# events live. Stop with Ctrl-C; what the script set up is taken down again.
#
#   scripts/run.sh                     data protection on, a removable demo
#                                      volume at /run/lumo-usb, mounts announced
#   scripts/run.sh -- --kind exec      other reference-daemon options instead
#                                      (lumo-refdaemon --help)
#   LUMO_RUN_SYSTEMD=1 scripts/run.sh  as systemd units (where systemd is the
#                                      init), output via journalctl
#
# Try in another shell: ls -l /tmp; echo hi > /run/lumo-usb/a.txt;
# mv /run/lumo-usb/a.txt /run/lumo-usb/b.txt; lp -d LumoPDF /etc/hostname
# At the daemon's prompt: help, stats, filter kind file, quit (the extension
# keeps running and reconnects when the daemon is back).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

sudo=""
[ "$(id -u)" -ne 0 ] && sudo=sudo

systemd=0
if [ "${LUMO_RUN_SYSTEMD:-0}" = 1 ]; then
  if [ ! -d /run/systemd/system ]; then
    cat >&2 <<'EOF'
LUMO_RUN_SYSTEMD=1: systemd is not the init on this machine (no /run/systemd/system),
so the units can't run here. Either run without it (scripts/run.sh), or see
them under a real systemd booted in a container:
  sudo scripts/container-test.sh    # builds the package, boots systemd-nspawn,
                                    # installs and checks the service there
EOF
    exit 1
  fi
  systemd=1
fi

. scripts/deps.sh
install_deps build
install_deps bpf
install_deps run

build=${LUMO_RUN_BUILD:-build-run}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMO_BUILD_TESTS=OFF \
  -DLUMO_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target lumo-es lumo-refdaemon
bin=$(cd "$build" && pwd)

runtime=/run/tarvex
volume=/run/lumo-usb
units=/run/systemd/system

# What this run set up, taken down by cleanup() in reverse.
mounted=0
queue_added=0
cupsd_pid=""
es_pid=""
units_written=0

cleanup() {
  set +e
  if [ "$units_written" = 1 ]; then
    $sudo systemctl stop lumo-es lumo-refdaemon
    $sudo rm -rf "$units"/lumo-es.service "$units"/lumo-refdaemon.service \
      "$units"/lumo-es.service.d "$units"/lumo-refdaemon.service.d
    $sudo systemctl daemon-reload
  fi
  if [ -n "$es_pid" ]; then
    # SIGTERM would mean uninstall to the extension; this is only a stop.
    if [ -n "$sudo" ]; then $sudo pkill -KILL -P "$es_pid" 2>/dev/null; fi
    kill -KILL "$es_pid" 2>/dev/null
    wait "$es_pid" 2>/dev/null
  fi
  [ "$queue_added" = 1 ] && $sudo lpadmin -x LumoPDF
  [ -n "$cupsd_pid" ] && $sudo kill -TERM "$cupsd_pid"
  if [ "$mounted" = 1 ]; then
    $sudo umount "$volume" && $sudo rmdir "$volume"
  fi
  echo "Stopped; what this run set up is gone."
}
trap cleanup EXIT
trap "exit 130" INT TERM

# The extension starts in earnest only where the product is installed; a
# demo product root stands in when it is not.
product_root=""
if [ ! -d /opt/tarvex/lumo/app ]; then
  product_root=$bin/demo-root
  mkdir -p "$product_root/opt/tarvex/lumo/app" "$product_root/opt/tarvex/lumo/EP"
fi
if ! mountpoint -q "$volume"; then
  $sudo mkdir -p "$volume"
  $sudo mount -t tmpfs -o size=64m lumo-usb "$volume"
  mounted=1
fi

# A print queue that writes PDF files, for the printer observer.
if command -v cupsd >/dev/null; then
  if ! pgrep -x cupsd >/dev/null; then
    $sudo cupsd
    for _ in $(seq 50); do
      cupsd_pid=$(pgrep -x -n cupsd || true)
      [ -n "$cupsd_pid" ] && break
      sleep 0.1
    done
  fi
  for _ in $(seq 50); do [ -S /run/cups/cups.sock ] && break; sleep 0.1; done
  if ! lpstat -p LumoPDF >/dev/null 2>&1 && [ -e /usr/lib/cups/backend/cups-pdf ]; then
    { $sudo lpadmin -p LumoPDF -E -v cups-pdf:/ -m lsb/usr/cups-pdf/CUPS-PDF_opt.ppd 2>/dev/null ||
      $sudo lpadmin -p LumoPDF -E -v cups-pdf:/ -m raw; } && queue_added=1
  fi
fi

daemon_args=(--policy dup=1,webcontrol=0,devicecontrol=0,antitampering=0
  --announce-mounts --mount "$volume=removable")
if [ "${1:-}" = "--" ]; then shift; daemon_args=("$@"); fi

if [ "$systemd" = 1 ]; then
  # The package's units, pointed at this build; the run's settings in drop-ins.
  for unit in lumo-refdaemon lumo-es; do
    sed -e "s|@BINARY_DIR@|$bin|g" -e "s|@DOC_DIR@|$root|g" \
      "platform/linux/systemd/$unit.service.in" | $sudo tee "$units/$unit.service" >/dev/null
    $sudo mkdir -p "$units/$unit.service.d"
  done
  units_written=1
  printf '[Service]\nEnvironment=LUMO_PRODUCT_ROOT=%s\n' "$product_root" |
    $sudo tee "$units/lumo-es.service.d/run.conf" >/dev/null
  printf '[Service]\nEnvironment="LUMO_REFDAEMON_ARGS=%s"\n' "${daemon_args[*]}" |
    $sudo tee "$units/lumo-refdaemon.service.d/run.conf" >/dev/null
  $sudo systemctl daemon-reload
  $sudo systemctl restart lumo-refdaemon lumo-es
  systemctl status --no-pager lumo-es | grep -E "Active:|Status:" || true
  echo "Running as units lumo-refdaemon and lumo-es; events (Ctrl-C to stop):"
  $sudo journalctl -f -o cat -u lumo-refdaemon
  exit 0
fi

log=$bin/lumo-es.log
echo "lumo-es log: $log"
$sudo env LUMO_LOG_STDERR=1 LUMO_PRODUCT_ROOT="$product_root" LUMO_RUNTIME_DIR="$runtime" \
  "$bin/lumo-es" >"$log" 2>&1 3>&- &
es_pid=$!
for _ in $(seq 50); do grep -q "events:" "$log" 2>/dev/null && break; sleep 0.1; done
grep "events:" "$log" || true

# The daemon can go and come back while the extension runs: it reconnects.
while :; do
  echo "Reference daemon events (type help; quit stops the daemon, Ctrl-C everything):"
  $sudo "$bin/lumo-refdaemon" --runtime-dir "$runtime" "${daemon_args[@]}" || exit $?
  kill -0 "$es_pid" 2>/dev/null || { echo "lumo-es has ended; see $log"; exit 1; }
  read -r -p "Daemon stopped; lumo-es keeps running. Enter starts the daemon again, q stops all: " \
    answer || exit 0
  [ "$answer" = q ] && exit 0
done

#!/usr/bin/env bash
# Runs the product on this machine: installs what it needs, builds, starts
# the reference daemon and lumo-es as root, and shows the daemon's JSON
# events live. Stop with Ctrl-C.
#
#   scripts/run.sh                     data protection on, a removable demo
#                                      volume at /run/lumo-usb, mounts announced
#   scripts/run.sh -- --policy dup=1   other reference-daemon options instead
#   LUMO_RUN_SYSTEMD=1 scripts/run.sh  as transient systemd units (where
#                                      systemd runs), output via journalctl
#
# Try in another shell: ls -l /tmp; echo hi > /run/lumo-usb/a.txt;
# mv /run/lumo-usb/a.txt /run/lumo-usb/b.txt; lp -d LumoPDF /etc/hostname
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

sudo=""
[ "$(id -u)" -ne 0 ] && sudo=sudo

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
# The extension starts in earnest only where the product is installed; a
# demo product root stands in when it is not.
product_root=""
if [ ! -d /opt/tarvex/lumo/app ]; then
  product_root=$bin/demo-root
  mkdir -p "$product_root/opt/tarvex/lumo/app" "$product_root/opt/tarvex/lumo/EP"
fi
$sudo mkdir -p "$runtime" "$volume"
mountpoint -q "$volume" || $sudo mount -t tmpfs -o size=64m lumo-usb "$volume"

# A print queue that writes PDF files, for the printer observer.
if command -v cupsd >/dev/null; then
  pgrep -x cupsd >/dev/null || $sudo cupsd
  for _ in $(seq 50); do [ -S /run/cups/cups.sock ] && break; sleep 0.1; done
  if ! lpstat -p LumoPDF >/dev/null 2>&1 && [ -e /usr/lib/cups/backend/cups-pdf ]; then
    $sudo lpadmin -p LumoPDF -E -v cups-pdf:/ -m lsb/usr/cups-pdf/CUPS-PDF_opt.ppd 2>/dev/null ||
      $sudo lpadmin -p LumoPDF -E -v cups-pdf:/ -m raw
  fi
fi

daemon_args=(--policy dup=1,webcontrol=0,devicecontrol=0,antitampering=0
  --announce-mounts --mount "$volume=removable")
if [ "${1:-}" = "--" ]; then shift; daemon_args=("$@"); fi

if [ "${LUMO_RUN_SYSTEMD:-0}" = 1 ] && [ -d /run/systemd/system ]; then
  units=/run/systemd/system
  for unit in lumo-refdaemon lumo-es; do
    sed -e "s|@BINARY_DIR@|$bin|g" -e "s|@SOURCE_DIR@|$root|g" -e "s|@RUNTIME_DIR@|$runtime|g" \
      -e "s|@PRODUCT_ROOT@|$product_root|g" -e "s|@DAEMON_ARGS@|${daemon_args[*]}|g" \
      "platform/linux/systemd/$unit.service.in" | $sudo tee "$units/$unit.service" >/dev/null
  done
  $sudo systemctl daemon-reload
  $sudo systemctl restart lumo-refdaemon lumo-es
  echo "Running as units lumo-refdaemon and lumo-es; events:"
  exec $sudo journalctl -f -o cat -u lumo-refdaemon
fi

log=$bin/lumo-es.log
echo "lumo-es log: $log"
$sudo env LUMO_LOG_STDERR=1 LUMO_PRODUCT_ROOT="$product_root" LUMO_RUNTIME_DIR="$runtime" \
  "$bin/lumo-es" >"$log" 2>&1 &
es_pid=$!
stop() {
  # SIGTERM would mean uninstall to the extension; this is only a stop.
  if [ -n "$sudo" ]; then $sudo pkill -KILL -P "$es_pid" 2>/dev/null || true; fi
  kill -KILL "$es_pid" 2>/dev/null || true
}
trap stop EXIT
trap "exit 130" INT TERM
for _ in $(seq 50); do grep -q "events:" "$log" 2>/dev/null && break; sleep 0.1; done
grep "events:" "$log" || true
echo "Reference daemon events (Ctrl-C to stop):"
$sudo "$bin/lumo-refdaemon" --runtime-dir "$runtime" "${daemon_args[@]}"

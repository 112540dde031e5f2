#!/usr/bin/env bash
# Sets up a Debian machine for the build, builds, and runs every test: a
# plain build, then under AddressSanitizer+UBSan and under ThreadSanitizer.
#   LUMO_TEST_VARIANTS="plain address thread"   which builds to test
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/deps.sh
install_deps build
install_deps bpf
# CUPS with a PDF queue for the print and exec-authorisation end-to-end tests.
install_deps run

variants=${LUMO_TEST_VARIANTS:-plain address thread}
jobs=$(nproc)

for variant in $variants; do
  dir=build-test-$variant
  sanitize=$variant
  [ "$variant" = plain ] && sanitize=""
  echo "=== $variant build ($dir)"
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DLUMO_SANITIZE="$sanitize" -DLUMO_BUILD_BENCH="$([ "$variant" = plain ] && echo ON || echo OFF)" \
    >/dev/null
  cmake --build "$dir" -j "$jobs"
  echo "=== $variant tests"
  # End-to-end tests against the kernel hold real processes for set times:
  # they run one at a time, after the rest ran in parallel.
  (cd "$dir" && export ASAN_OPTIONS=detect_leaks=1 \
      UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 &&
    ctest --output-on-failure -j "$jobs" --timeout 300 -LE e2e &&
    if ctest -N -L e2e | grep -q "Total Tests: [1-9]"; then
      ctest --output-on-failure --timeout 300 -L e2e
    fi)
done

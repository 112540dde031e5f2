#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/) with clang into build-fuzz/ and runs
# each one for a while.
#   scripts/fuzz.sh [seconds per target, default 30]
# Each target's corpus grows in build-fuzz/corpus/<target>/, starting from
# fuzz/seeds/<target>/: files as they are, and text-format messages
# (*.txtpb, with "# proto-file:" and "# proto-message:" header lines)
# encoded with protoc. Inputs that fail are kept in build-fuzz/crashes/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-30}
[[ "$seconds" =~ ^[0-9]+$ ]] || { echo "usage: scripts/fuzz.sh [seconds]" >&2; exit 2; }

. scripts/deps.sh
install_deps build
# clang and its fuzzer runtime, beyond the build set.
missing=()
for p in clang libclang-rt-14-dev; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

dir=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DLUMO_FUZZ=ON -DLUMO_BUILD_TESTS=OFF -DLUMO_BUILD_BENCH=OFF >/dev/null
cmake --build "$dir" --target lumo_fuzzers -j "$(nproc)"

seed() {  # seed <target> <corpus dir>
  local f header file message
  for f in fuzz/seeds/"$1"/*; do
    [ -f "$f" ] || continue
    if [[ "$f" == *.txtpb ]]; then
      file=$(sed -n 's/^# proto-file: *//p' "$f")
      message=$(sed -n 's/^# proto-message: *//p' "$f")
      protoc --proto_path="$(dirname "$file")" --encode="$message" "$file" < "$f" \
        > "$2/seed-$(basename "$f" .txtpb)"
    else
      cp "$f" "$2/"
    fi
  done
}

passed=0
failed=0
while read -r target; do
  [ -n "$target" ] || continue
  corpus=$dir/corpus/$target
  crashes=$dir/crashes/$target
  mkdir -p "$corpus" "$crashes"
  seed "$target" "$corpus"
  args=(-max_total_time="$seconds" -timeout=10 -print_final_stats=1 -artifact_prefix="$crashes/")
  [ -f "fuzz/$target.dict" ] && args+=(-dict="fuzz/$target.dict")
  echo "=== $target (${seconds}s)"
  if "$dir/fuzz/$target" "${args[@]}" "$corpus"; then
    passed=$((passed + 1))
  else
    echo "=== $target failed; inputs in $crashes/"
    failed=$((failed + 1))
  fi
done < "$dir/fuzzers.txt"

echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]

# Debian packages the project needs, installed on demand. Sourced by the
# other scripts: install_deps build|bpf|run|package|bench
deps_build=(cmake ninja-build g++ pkg-config protobuf-compiler protobuf-compiler-grpc
  libprotobuf-dev libgrpc++-dev libsystemd-dev libgtest-dev libgmock-dev libbenchmark-dev)
# The facility's BPF programs: CO-RE objects built against the running
# kernel's BTF, loaded through libbpf.
deps_bpf=(clang llvm libbpf-dev bpftool)
# Running the product for a person (scripts/run.sh): a print queue to watch.
deps_run=(cups cups-client cups-bsd printer-driver-cups-pdf)
# The package and its test in a booted container (scripts/container-test.sh):
# cpack's Depends come from dpkg-shlibdeps, which it runs on what file(1)
# calls ELF.
deps_package=(dpkg-dev file lintian systemd-container)
# bench/overhead.sh: the timer and the two peers it is compared with.
deps_bench=(hyperfine auditd fapolicyd)

install_deps() {
  local -a wanted=()
  case "$1" in
    build) wanted=("${deps_build[@]}") ;;
    bpf) wanted=("${deps_bpf[@]}") ;;
    run) wanted=("${deps_run[@]}") ;;
    package) wanted=("${deps_package[@]}") ;;
    bench) wanted=("${deps_bench[@]}") ;;
    *) echo "install_deps: unknown set $1" >&2; return 1 ;;
  esac
  local -a missing=()
  local p
  for p in "${wanted[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

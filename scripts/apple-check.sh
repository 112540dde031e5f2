#!/usr/bin/env bash
# Compile and link check of the macOS build, for machines without a Mac.
# Against a macOS SDK, for arm64 and x86_64 with warnings as errors:
#   1. syntax-checks the core as macOS builds it, src/main/ included, every
#      source under platform/apple/ and the macOS tests in tests/apple/;
#   2. compiles and links the extension executable with lld (Protocol
#      Buffers, gRPC and Abseil have no macOS build here: their headers are
#      portable and their symbols are left to dynamic lookup; any other
#      missing symbol fails the link);
#   3. checks the daemon link's protocols by their selectors and type
#      encodings;
#   4. links the test executable the same way;
#   5. fails on any type, defined in a header that both C++ and Objective-C++
#      (ARC) sources include, that holds an Objective-C object or block
#      pointer: ARC makes such a member a strong reference with a releasing
#      destructor, plain C++ a raw pointer, so the one type would mean two
#      things;
#   6. runs the static analyzer (retain counts, nullability, Objective-C,
#      dead code) over all of the above; each finding fails unless
#      platform/apple/analyzer-suppressions.txt justifies it.
# Objective-C++ is compiled with ARC, as the bundle is, and with the
# Objective-C, ARC and nullability warnings on.
#
#   scripts/apple-check.sh [SDK_PATH]             the check
#   scripts/apple-check.sh --selftest [SDK_PATH]  shows that misuse fails it
# SDK_PATH may also come from LUMO_MACOS_SDK, else the SDK unpacked at
# /tmp/macos-sdk is used; without one the check says it was skipped and
# exits 0. Other knobs:
#   LUMO_APPLE_ARCHS="arm64 x86_64"     architectures to check
#   LUMO_APPLE_CHECK_OUT=dir            work folder (build-apple-check)
#   LUMO_APPLE_JOBS=n                   parallel compiles (nproc)
# Needs clang, clang-query, lld, llvm-objdump/llvm-nm/llvm-cxxfilt, protoc
# with the gRPC plug-in, and the Debian protobuf, gRPC, Abseil and
# GoogleTest headers.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

mode=check
if [ "${1:-}" = --selftest ]; then
  mode=selftest
  shift
fi
default_sdk=/tmp/macos-sdk
sdk=${1:-${LUMO_MACOS_SDK:-}}
if [ -z "$sdk" ] && [ -d "$default_sdk" ]; then sdk=$default_sdk; fi
if [ -z "$sdk" ]; then
  echo "apple-check: the macOS check was SKIPPED: no SDK (argument, LUMO_MACOS_SDK or $default_sdk)"
  exit 0
fi

archs=${LUMO_APPLE_ARCHS:-arm64 x86_64}
out=${LUMO_APPLE_CHECK_OUT:-$root/build-apple-check}
jobs=${LUMO_APPLE_JOBS:-$(nproc)}
min_macos=11

fail() {
  echo "apple-check: $*" >&2
  exit 1
}

[ -f "$sdk/usr/include/EndpointSecurity/EndpointSecurity.h" ] ||
  fail "$sdk is not a macOS SDK with Endpoint Security headers"
[ -d "$sdk/System/Library/Frameworks/Foundation.framework" ] ||
  fail "$sdk has no Foundation framework"
[ -f "$sdk/usr/include/c++/v1/__config" ] || fail "$sdk has no C++ library headers"
sdk=$(cd "$sdk" && pwd)

tool() {
  local name
  for name in "$@"; do
    if command -v "$name" >/dev/null; then
      command -v "$name"
      return
    fi
  done
  fail "none of $* found"
}
cxx=$(tool clang++ clang++-14)
objdump=$(tool llvm-objdump llvm-objdump-14)
nm=$(tool llvm-nm llvm-nm-14)
cxxfilt=$(tool llvm-cxxfilt llvm-cxxfilt-14)
query=$(tool clang-query clang-query-14)
protoc=$(tool protoc)
grpc_plugin=$(tool grpc_cpp_plugin)
command -v ld64.lld >/dev/null || command -v ld64.lld-14 >/dev/null ||
  fail "no ld64.lld: install lld (apt-get install lld)"
if ! command -v ld64.lld >/dev/null; then
  # clang's -fuse-ld=lld looks for ld64.lld by that name.
  mkdir -p "$out/bin"
  ln -sf "$(command -v ld64.lld-14)" "$out/bin/ld64.lld"
  PATH=$out/bin:$PATH
fi

# Only the third-party header trees, never all of /usr/include: its libc
# would shadow the SDK's.
inc=$out/include
rm -rf "$inc"
mkdir -p "$inc/google"
third_party=/usr/include
for tree in google/protobuf grpc grpc++ grpcpp absl gtest gmock; do
  [ -d "$third_party/$tree" ] || fail "no $third_party/$tree: install the -dev package"
  ln -s "$third_party/$tree" "$inc/$tree"
done

gen=$out/proto_gen
mkdir -p "$gen"
"$protoc" --proto_path="$root/proto" --cpp_out="$gen" --grpc_out="$gen" \
  --plugin=protoc-gen-grpc="$grpc_plugin" "$root/proto/sysext.proto"

# The core as macOS builds it (platform/apple/core-excluded.txt).
mapfile -t excluded < <(grep -v -e '^#' -e '^$' platform/apple/core-excluded.txt)
core_srcs=()
while IFS= read -r f; do
  skip=
  for x in "${excluded[@]}"; do [ "$f" = "$x" ] && skip=1; done
  [ -n "$skip" ] || core_srcs+=("$f")
done < <(find src -name '*.cpp' | sort)
mapfile -t apple_srcs < <(find platform/apple -name '*.mm' -o -name '*.cpp' | sort)
mapfile -t test_srcs < <(find tests/apple -maxdepth 1 \( -name '*.mm' -o -name '*.cpp' \) | sort)
proto_srcs=("$gen/sysext.pb.cc" "$gen/sysext.grpc.pb.cc")

# Every -Wobjc-* and -Warc-* warning clang 14 has (diagtool tree), and the
# nullability and block-capture ones.
objc_warnings="-Warc -Warc-bridge-casts-disallowed-in-nonarc -Warc-maybe-repeated-use-of-weak
  -Warc-non-pod-memaccess -Warc-performSelector-leaks -Warc-repeated-use-of-weak -Warc-retain-cycles
  -Warc-unsafe-retained-assign -Wobjc-autosynthesis-property-ivar-name-match
  -Wobjc-bool-constant-conversion -Wobjc-boxing -Wobjc-circular-container -Wobjc-cocoa-api
  -Wobjc-designated-initializers -Wobjc-dictionary-duplicate-keys -Wobjc-flexible-array
  -Wobjc-forward-class-redefinition -Wobjc-interface-ivars -Wobjc-literal-compare
  -Wobjc-literal-conversion -Wobjc-macro-redefinition -Wobjc-messaging-id
  -Wobjc-method-access -Wobjc-missing-property-synthesis -Wobjc-missing-super-calls
  -Wobjc-multiple-method-names -Wobjc-noncopy-retain-block-property
  -Wobjc-nonunified-exceptions -Wobjc-property-assign-on-object-type
  -Wobjc-property-implementation -Wobjc-property-implicit-mismatch
  -Wobjc-property-matches-cocoa-ownership-rule -Wobjc-property-no-attribute
  -Wobjc-property-synthesis -Wobjc-protocol-method-implementation
  -Wobjc-protocol-property-synthesis -Wobjc-protocol-qualifiers
  -Wobjc-readonly-with-setter-property -Wobjc-redundant-api-use -Wobjc-redundant-literal-use
  -Wobjc-root-class -Wobjc-signed-char-bool -Wobjc-string-compare
  -Wobjc-string-concatenation -Wobjc-unsafe-perform-selector
  -Wnullable-to-nonnull-conversion -Wimplicit-retain-self"

# flags_for arch [language]: Objective-C++ (the default) with ARC, as the
# bundle builds it; C++ without.
flags_for() {
  local arch=$1 lang=${2:-objective-c++} arc=
  [ "$lang" = objective-c++ ] && arc=-fobjc-arc
  # The SDK's own C++ library headers, with their availability markup, not
  # the ones the compiler would find next to itself.
  echo "-target $arch-apple-macos$min_macos -isysroot $sdk -stdlib=libc++ -std=c++20" \
    "-nostdinc++ -isystem $sdk/usr/include/c++/v1" \
    "$arc -fblocks -Wall -Wextra $objc_warnings -Werror" \
    "-I$root/src -I$root/platform/apple -isystem $gen -isystem $inc"
}

lang_of() {
  case $1 in
    *.mm) echo objective-c++ ;;
    *) echo c++ ;;
  esac
}

# Log file of one compile.
log_of() {
  echo "$out/logs/$1/$2-$(echo "${3#"$out"/}" | tr / _).log"
}

object_of() {
  echo "$out/obj/$1/$(echo "${2#"$out"/}" | tr / _).o"
}

# The analyzer's checkers: retain counts and the rest of the Cocoa and Core
# Foundation ones (osx), nullability, dead code, and the core checks.
analyzer_checkers=core,cplusplus,deadcode,nullability,osx,unix

# compile_one kind "arch<TAB>file": one syntax check, object compile (with
# its header dependencies) or analysis; its diagnostics go to its log, a
# failure also to the list of failures.
compile_one() {
  local kind=$1 arch src action extra=() log lang obj
  IFS=$'\t' read -r arch src <<<"$2"
  log=$(log_of "$kind" "$arch" "$src")
  lang=$(lang_of "$src")
  case $kind in
    syntax) action=(-fsyntax-only) ;;
    object)
      obj=$(object_of "$arch" "$src")
      action=(-c -o "$obj" -MD -MF "$obj.d")
      ;;
    analyze)
      action=(--analyze --analyzer-output text -o /dev/null
        -Xanalyzer -analyzer-checker="$analyzer_checkers")
      ;;
  esac
  # Generated code is not ours to warn about.
  case $src in "$out"/*) extra=(-w) ;; esac
  # shellcheck disable=SC2046
  if ! "$cxx" $(flags_for "$arch" "$lang") -x "$lang" "${extra[@]}" "${action[@]}" \
      "$src" >"$log" 2>&1; then
    printf '%s\t%s\n' "$arch" "$src" >>"$out/logs/$kind/FAILED"
  fi
}

# compile_all kind files...: every file for every architecture, in parallel;
# prints the diagnostics of the failures and fails if there were any.
compile_all() {
  local kind=$1 arch src
  shift
  rm -rf "$out/logs/$kind"
  mkdir -p "$out/logs/$kind"
  for arch in $archs; do
    mkdir -p "$out/obj/$arch"
    for src in "$@"; do printf '%s\t%s\n' "$arch" "$src"; done
  done | xargs -P "$jobs" -d '\n' -I{} bash -c 'compile_one "$@"' _ "$kind" {}
  if [ -s "$out/logs/$kind/FAILED" ]; then
    while IFS=$'\t' read -r arch src; do
      echo "--- $arch $src"
      cat "$(log_of "$kind" "$arch" "$src")"
    done <"$out/logs/$kind/FAILED"
    return 1
  fi
}
export -f compile_one log_of object_of flags_for lang_of
export out cxx sdk min_macos root gen inc objc_warnings analyzer_checkers

# The protocols as the compiler encodes them, from a probe class that adopts
# both: "protocol selector encoding" lines, sorted.
protocol_encodings() {
  "$objdump" --macho --objc-meta-data "$1" | awk '
    /\(struct protocol_t \*\)$/ { proto = ""; want = 1; methods = 0; next }
    want && $1 == "name" { proto = $NF; want = 0; next }
    /optionalInstanceMethods|classMethods/ { methods = 0 }
    /instanceMethods/ && !/optional/ { methods = 1; next }
    methods && proto != "" && $1 == "name" { sel = $NF }
    methods && proto != "" && $1 == "types" { print proto, sel, $NF }
  ' | sort -u
}

# What the daemon expects. A BOOL is a signed char on x86_64 and a C bool
# on arm64, so its encoding letter differs by architecture.
expected_encodings() {
  local bool=c
  [ "$1" = arm64 ] && bool=B
  sort <<EOF
SysextXPCInterface addMountPoint:mountType: v32@0:8@16Q24
SysextXPCInterface removeMountPoint: v24@0:8@16
SysextXPCInterface clearMountPoints v16@0:8
SysextXPCInterface setPolicy:withTimestamp:andCompletionHandler: v40@0:8@16Q24@?32
SysextXPCInterface setExclusions:withTimestamp:andCompletionHandler: v40@0:8@16Q24@?32
SysextXPCInterface setPrinter:verdict: v28@0:8@16${bool}24
ProtectionDaemonXPCInterface registerWithCompletionHandler: v24@0:8@?16
ProtectionDaemonXPCInterface handleFileEvent: v24@0:8@16
ProtectionDaemonXPCInterface handlePrinterEvent: v24@0:8@16
ProtectionDaemonXPCInterface handleProcessStartEvent: v24@0:8@16
ProtectionDaemonXPCInterface handleProcessExitEvent: v24@0:8@16
ProtectionDaemonXPCInterface startNetworkExtensionTunnelWithCompletionHandler: v24@0:8@?16
ProtectionDaemonXPCInterface activateNetworkExtensionWithCompletionHandler: v24@0:8@?16
EOF
}

# check_encodings arch [extra include dir searched first]
check_encodings() {
  local arch=$1 first=${2:-}
  local probe=$out/probe/protocolprobe-$arch.o
  mkdir -p "$out/probe"
  # shellcheck disable=SC2046
  "$cxx" ${first:+-I"$first"} $(flags_for "$arch") -x objective-c++ -c \
    tests/apple/probe/protocolprobe.mm -o "$probe"
  if ! diff <(expected_encodings "$arch") <(protocol_encodings "$probe") \
      >"$out/probe/encodings-$arch.diff"; then
    echo "--- $arch: protocol encodings differ (< expected, > declared)"
    cat "$out/probe/encodings-$arch.diff"
    return 1
  fi
}

# Links objects into a Mach-O executable; only Protocol Buffers, gRPC,
# Abseil and GoogleTest symbols may stay undefined, for dynamic lookup.
link_macho() {
  local arch=$1 output=$2
  shift 2
  # shellcheck disable=SC2046
  "$cxx" -target "$arch-apple-macos$min_macos" -isysroot "$sdk" -stdlib=libc++ -fobjc-arc \
    -fuse-ld=lld "$@" -o "$output" -framework Foundation -framework CoreFoundation \
    -lEndpointSecurity -lbsm -Wl,-U,___isPlatformVersionAtLeast \
    -Wl,-undefined,dynamic_lookup
  file "$output" | grep -q "Mach-O 64-bit.*executable" || fail "$output is not a Mach-O executable"
  local strays
  local allowed='google::protobuf|grpc|gpr_|absl|testing::|isPlatformVersionAtLeast'
  strays=$("$nm" -m -u "$output" | grep 'dynamically looked up' | awk '{print $3}' |
    "$cxxfilt" -_ | grep -v -E "$allowed" || true)
  if [ -n "$strays" ]; then
    echo "--- $arch: $output leaves symbols of its own undefined:"
    echo "$strays"
    return 1
  fi
}

# headers_of arch files...: the tree's headers the files' objects included,
# relative to the top.
headers_of() {
  local arch=$1 src
  shift
  for src in "$@"; do
    sed -e 's/^[^:]*://' -e 's/\\$//' "$(object_of "$arch" "$src").d" | tr ' ' '\n'
  done | sed "s|^$root/||" | grep -E '^(src|platform/apple|tests/apple)/.*\.h$' | sort -u
}

# Record definitions in the headers matching a pattern whose fields hold an
# Objective-C object or block pointer: directly, in an array, as a template
# argument or in a member's own fields. Template instantiations are left
# out: a shared template instantiated with an Objective-C type is another
# type than its C++ twin.
held_pointer_query() {
  local pattern=$1
  local objc='qualType(anyOf(hasCanonicalType(objcObjectPointerType()), hasCanonicalType(blockPointerType())))'
  local held="qualType(anyOf($objc, hasCanonicalType(arrayType(hasElementType($objc))),
    hasCanonicalType(recordType(hasDeclaration(classTemplateSpecializationDecl(
      hasAnyTemplateArgument(refersToType($objc)))))),
    hasCanonicalType(recordType(hasDeclaration(cxxRecordDecl(has(fieldDecl(hasType($objc)))))))))"
  echo "set output diag"
  echo "m cxxRecordDecl(isDefinition(), unless(isTemplateInstantiation()),
    isExpansionInFileMatching(\"$pattern\"), has(fieldDecl(hasType($held))))" | tr -s ' \n' ' '
  echo
}

# "file:line" of every record definition the query finds in the files, and
# its first source line.
query_records() {
  local lang=$1 queryfile=$2 arch=${archs%% *}
  shift 2
  # shellcheck disable=SC2046
  "$query" -f "$queryfile" "$@" -- $(flags_for "$arch" "$lang") -x "$lang" 2>&1 |
    awk -v top="$root/" '
      /: note: "root" binds here$/ {
        split($1, at, ":"); loc = at[1] ":" at[2]
        if (index(loc, top) == 1) loc = substr(loc, length(top) + 1)
        next
      }
      loc != "" { print loc "\t" $0; loc = "" }' | sort -u
}

# A type both modes compile must mean the same in both: none defined in a
# header that C++ and Objective-C++ sources share may hold an Objective-C
# object pointer (under ARC a strong reference with a releasing destructor,
# in C++ a plain pointer). The objects' dependency files tell which headers
# are shared; a type counts only where the C++ side sees it too.
check_shared_types() {
  local arch=${archs%% *} src cpp_srcs=() mm_srcs=() shared pattern
  for src in "${core_srcs[@]}" "${apple_srcs[@]}" "${test_srcs[@]}"; do
    case $src in *.mm) mm_srcs+=("$src") ;; *) cpp_srcs+=("$src") ;; esac
  done
  mkdir -p "$out/shared"
  headers_of "$arch" "${cpp_srcs[@]}" >"$out/shared/cpp-headers"
  headers_of "$arch" "${mm_srcs[@]}" >"$out/shared/objc-headers"
  shared=$(comm -12 "$out/shared/cpp-headers" "$out/shared/objc-headers")
  echo "   $(echo "$shared" | grep -c .) headers shared by C++ and Objective-C++"
  [ -n "$shared" ] || return 0
  # One regular expression: each header, quoted and anchored at its end.
  # shellcheck disable=SC2016
  pattern=$(echo "$shared" | sed 's/[.[\*^$()+?{}|]/\\&/g; s/$/$/' | paste -sd '|')
  held_pointer_query "$pattern" >"$out/shared/held.query"
  query_records objective-c++ "$out/shared/held.query" "${mm_srcs[@]}" >"$out/shared/held"
  [ -s "$out/shared/held" ] || return 0

  # Seen from C++ as well: the same definitions, found without Objective-C.
  echo "set output diag" >"$out/shared/records.query"
  echo "m cxxRecordDecl(isDefinition(), isExpansionInFileMatching(\"$pattern\"))" \
    >>"$out/shared/records.query"
  query_records c++ "$out/shared/records.query" "${cpp_srcs[@]}" | cut -f1 \
    >"$out/shared/cpp-records"
  local status=0 loc line
  while IFS=$'\t' read -r loc line; do
    grep -qxF "$loc" "$out/shared/cpp-records" || continue
    echo "--- $loc: a type shared by C++ and Objective-C++ holds an Objective-C"
    echo "    object pointer, a strong reference under ARC and a raw pointer in C++:"
    echo "    $line"
    status=1
  done <"$out/shared/held"
  return "$status"
}

# The analyzer's findings as "file: message [checker]", each unless a line
# of the suppressions list ("file: message [checker] | reason") justifies
# it; a suppression that no longer matches fails too.
check_analysis() {
  local suppressions=platform/apple/analyzer-suppressions.txt status=0 finding
  grep -h ': warning: ' "$out"/logs/analyze/*.log |
    sed -E "s|^$root/||; s|^([^:]+):[0-9]+:[0-9]+: warning: |\\1: |" | sort -u \
    >"$out/logs/analyze/findings"
  grep -v -e '^#' -e '^$' "$suppressions" | sed 's/ | .*$//' | sort -u \
    >"$out/logs/analyze/suppressed"
  while IFS= read -r finding; do
    echo "--- analyzer: $finding"
    status=1
  done < <(comm -23 "$out/logs/analyze/findings" "$out/logs/analyze/suppressed")
  while IFS= read -r finding; do
    echo "--- $suppressions: no longer found: $finding"
    status=1
  done < <(comm -13 "$out/logs/analyze/findings" "$out/logs/analyze/suppressed")
  return "$status"
}

objects_of() {
  local arch=$1 src
  shift
  for src in "$@"; do object_of "$arch" "$src"; done
}

executable_objects() {
  objects_of "$1" "${core_srcs[@]}" "${apple_srcs[@]}" "${proto_srcs[@]}"
}

check() {
  local status=0 arch
  echo "apple-check: SDK $sdk, architectures: $archs"
  echo "== syntax: ${#core_srcs[@]} core, ${#apple_srcs[@]} platform, ${#test_srcs[@]} test sources"
  compile_all syntax "${core_srcs[@]}" "${apple_srcs[@]}" "${test_srcs[@]}" || return 1
  echo "== objects"
  compile_all object "${core_srcs[@]}" "${apple_srcs[@]}" "${test_srcs[@]}" \
    "${proto_srcs[@]}" || return 1
  echo "== types shared by C++ and Objective-C++"
  check_shared_types || return 1
  for arch in $archs; do
    echo "== $arch: protocol encodings"
    check_encodings "$arch" || status=1
    echo "== $arch: link"
    mapfile -t objs < <(executable_objects "$arch")
    link_macho "$arch" "$out/com.tarvex.lumo.es-$arch" "${objs[@]}" || status=1
    # The tests link everything but the process entry.
    mapfile -t objs < <(objects_of "$arch" "${core_srcs[@]}" "${apple_srcs[@]}" \
      "${proto_srcs[@]}" "${test_srcs[@]}" | grep -v '/src_main_main\.cpp\.o$')
    link_macho "$arch" "$out/lumo_apple_tests-$arch" "${objs[@]}" || status=1
  done
  [ "$status" = 0 ] || return 1
  echo "== analyzer: ${#core_srcs[@]} core, ${#apple_srcs[@]} platform, ${#test_srcs[@]} test sources"
  compile_all analyze "${core_srcs[@]}" "${apple_srcs[@]}" "${test_srcs[@]}" || return 1
  check_analysis || return 1
  for arch in $archs; do file "$out/com.tarvex.lumo.es-$arch"; done
  echo "apple-check: passed"
}

# Each snippet in tests/apple/misuse/ compiles with LUMO_MISUSE=0 and must
# fail with LUMO_MISUSE=1, with the diagnostic its "expect:" line names.
selftest() {
  local status=0 arch snippet expect log
  arch=${archs%% *}
  # One architecture shows it; compile_all reads this one.
  local archs=$arch
  mkdir -p "$out/selftest"
  for snippet in tests/apple/misuse/*; do
    expect=$(sed -n 's|^// expect: ||p' "$snippet")
    log=$out/selftest/$(basename "$snippet").log
    # shellcheck disable=SC2046
    if ! "$cxx" $(flags_for "$arch" "$(lang_of "$snippet")") -x "$(lang_of "$snippet")" \
        -fsyntax-only -DLUMO_MISUSE=0 "$snippet" >"$log" 2>&1; then
      echo "FAIL $snippet: the correct form does not compile"
      cat "$log"
      status=1
      continue
    fi
    # shellcheck disable=SC2046
    if "$cxx" $(flags_for "$arch" "$(lang_of "$snippet")") -x "$(lang_of "$snippet")" \
        -fsyntax-only -DLUMO_MISUSE=1 "$snippet" >"$log" 2>&1; then
      echo "FAIL $snippet: the misuse compiles"
      status=1
    elif ! grep -q -- "$expect" "$log"; then
      echo "FAIL $snippet: failed without \"$expect\":"
      cat "$log"
      status=1
    else
      echo "ok   $snippet: $(grep -m 1 -- "$expect" "$log" | sed 's|^.*: error: ||')"
    fi
  done

  # A protocol whose declared types drift from the daemon's is caught by its
  # encoding: setPolicy's timestamp narrowed to 32 bits.
  local drift=$out/selftest/drift
  mkdir -p "$drift/xpc"
  sed '/setPolicy:/,/andCompletionHandler:/ s/(uint64_t)timestamp/(uint32_t)timestamp/' \
    platform/apple/xpc/protocols.h >"$drift/xpc/protocols.h"
  if check_encodings "$arch" "$drift" >"$out/selftest/encodings.log" 2>&1; then
    echo "FAIL encodings: a 32-bit timestamp passes the encoding check"
    status=1
  elif ! grep -q 'setPolicy:withTimestamp:andCompletionHandler: v36@0:8@16I24@?28' \
      "$out/selftest/encodings.log"; then
    echo "FAIL encodings: the drift was not reported:"
    cat "$out/selftest/encodings.log"
    status=1
  else
    echo "ok   encodings: setPolicy:withTimestamp:andCompletionHandler: v36@0:8@16I24@?28 reported"
  fi

  # A seam without its macOS definition fails the link even though
  # third-party symbols are left to dynamic lookup.
  compile_all object "${core_srcs[@]}" "${apple_srcs[@]}" "${proto_srcs[@]}" || return 1
  mapfile -t objs < <(executable_objects "$arch" | grep -v '/platform_apple_paths_cupspaths')
  if link_macho "$arch" "$out/selftest/incomplete" "${objs[@]}" >"$out/selftest/link.log" 2>&1
  then
    echo "FAIL link: an executable without cupsPaths() links"
    status=1
  elif ! grep -q 'endpointsecurity::cupsPaths()' "$out/selftest/link.log"; then
    echo "FAIL link: the missing cupsPaths() was not reported:"
    cat "$out/selftest/link.log"
    status=1
  else
    echo "ok   link: endpointsecurity::cupsPaths() reported as undefined"
  fi

  [ "$status" = 0 ] && echo "apple-check selftest: passed"
  return "$status"
}

mkdir -p "$out"
"$mode"

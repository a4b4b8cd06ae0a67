#!/usr/bin/env bash
# Installs everything, builds, and runs every test:
#   the whole suite under AddressSanitizer + UndefinedBehaviorSanitizer,
#   the concurrency tests again under ThreadSanitizer,
#   and each libFuzzer target briefly.
# Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

jobs=$(nproc)
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp}
export QT_QPA_PLATFORM=${QT_QPA_PLATFORM:-offscreen}

# Tests that talk over D-Bus start their own private bus; none uses the caller's.
unset DBUS_SESSION_BUS_ADDRESS

echo "== ASan/UBSan build and full suite"
cmake --preset asan >/dev/null
cmake --build --preset asan -j "$jobs"
ctest --test-dir build/asan --output-on-failure -j "$jobs"

echo "== Debian package: build, validate, unpack, run"
bash scripts/check-package.sh

echo "== TSan build and concurrency tests"
cmake --preset tsan >/dev/null
cmake --build --preset tsan -j "$jobs" --target brix_concurrency_tests
ctest --test-dir build/tsan --output-on-failure -j "$jobs" -L concurrency

if ls tests/fuzz/*.cpp >/dev/null 2>&1; then
  echo "== libFuzzer targets (short runs)"
  cmake --preset fuzz >/dev/null
  fuzz_targets=$(for f in tests/fuzz/fuzz_*.cpp; do basename "$f" .cpp; done)
  # shellcheck disable=SC2086
  cmake --build --preset fuzz -j "$jobs" --target $fuzz_targets
  for f in build/fuzz/tests/fuzz/fuzz_*; do
    [ -x "$f" ] || continue
    corpus="tests/fuzz/corpus/$(basename "$f")"
    mkdir -p "$corpus"
    tmp=$(mktemp -d)
    cp -r "$corpus"/. "$tmp"/ 2>/dev/null || true
    "$f" -max_total_time="${BRIX_FUZZ_SECONDS:-20}" -rss_limit_mb=2048 "$tmp"
    rm -rf "$tmp"
  done
fi
echo "== all tests passed"

#!/usr/bin/env bash
# Builds libYAX and runs every test three ways:
#   native    - the host compiler, Debug (the benchmark is built too)
#   sanitize  - the host compiler with AddressSanitizer + UndefinedBehaviorSanitizer
#               (leak checking on; only leaks kept on purpose are suppressed,
#               see tests/lsan.supp)
#   arm       - cross-compiled for 32-bit ARM (arm-linux-gnueabihf), run under qemu-arm
# Usage: scripts/test.sh [native] [sanitize] [arm]      (default: all three)
# Environment: YAX_BUILD_ROOT (default <repo>/build), YAX_JOBS (default 2),
#              YAX_SKIP_DEPS=1 to skip the install check.
set -uo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build_root="${YAX_BUILD_ROOT:-$root/build}"
jobs="${YAX_JOBS:-2}"

if [ "${YAX_SKIP_DEPS:-0}" != 1 ]; then
  bash "$root/scripts/deps.sh" || { echo "test: installing the dependencies failed" >&2; exit 1; }
fi

configs=("$@")
if [ ${#configs[@]} -eq 0 ]; then
  configs=(native sanitize arm)
fi

declare -A result

run_config() {
  local name="$1"
  local dir="$build_root/$name"
  local -a cmake_args=(-S "$root" -B "$dir" -DYAX_BUILD_TESTS=ON -DYAX_BUILD_TOOLS=ON)
  local -a env_args=()
  case "$name" in
    native)
      cmake_args+=(-DCMAKE_BUILD_TYPE=Debug -DYAX_BUILD_BENCH=ON)  # the benchmark must keep building
      ;;
    sanitize)
      cmake_args+=(-DCMAKE_BUILD_TYPE=Debug -DYAX_SANITIZE=ON)
      env_args=(
        "ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1"
        "LSAN_OPTIONS=suppressions=$root/tests/lsan.supp:print_suppressions=0"
        "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1"
      )
      ;;
    arm)
      cmake_args+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo
                   -DCMAKE_TOOLCHAIN_FILE="$root/cmake/arm-linux-gnueabihf.cmake")
      ;;
    *)
      echo "test: unknown configuration '$name' (native, sanitize, arm)" >&2
      return 2
      ;;
  esac

  echo
  echo "==================== $name ===================="
  if ! cmake "${cmake_args[@]}" >"$dir.configure.log" 2>&1; then
    cat "$dir.configure.log"
    echo "test[$name]: configure failed" >&2
    return 1
  fi
  if ! cmake --build "$dir" -j "$jobs"; then
    echo "test[$name]: build failed" >&2
    return 1
  fi
  (cd "$dir" && env "${env_args[@]}" ctest --output-on-failure -j "$jobs" --timeout 300)
}

status=0
mkdir -p "$build_root"
for c in "${configs[@]}"; do
  if run_config "$c"; then
    result[$c]=passed
  else
    result[$c]=FAILED
    status=1
  fi
done

echo
echo "==================== summary ===================="
for c in "${configs[@]}"; do
  printf '%-10s %s\n' "$c" "${result[$c]}"
done
exit $status

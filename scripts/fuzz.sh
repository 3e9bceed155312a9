#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (address and undefined-behaviour
# sanitizers) in build/fuzz and runs each for a bounded time, one job at a
# time, starting from the seed corpora made by the tests' builder, the sample
# image and the kept regression inputs, with the format's dictionary.
# Usage: scripts/fuzz.sh [seconds per target] [target ...]
#   targets: read delete_name delete_multi delete_all fast_delete save fast_save sound mp4_save buffer_save copy cover
# A crash is written to build/fuzz/findings/<target>/; copy it to
# tests/fuzz/regressions/<target>/ once fixed, so CTest replays it.
# Prints one line per target: executions, rate, coverage, corpus size, inputs
# run again with the leak check, findings.
set -uo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${YAX_BUILD_ROOT:-$root/build}/fuzz"
seconds="${1:-30}"
shift || true
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(read delete_name delete_multi delete_all fast_delete save fast_save sound mp4_save buffer_save copy cover)

cmake -S "$root" -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo -DYAX_FUZZ=ON -DYAX_BUILD_TOOLS=OFF \
      >"$build.configure.log" 2>&1 || { cat "$build.configure.log"; exit 1; }
cmake --build "$build" -j "${YAX_JOBS:-2}" --target fuzz_seeds \
      $(printf 'fuzz_%s ' "${targets[@]}") >"$build.build.log" 2>&1 || { tail -30 "$build.build.log"; exit 1; }

"$build/tests/fuzz/fuzz_seeds" "$build/seeds" || exit 1
# Only the leaks the library keeps on purpose are let through.
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
# The edited files live in memory when it can be had.
[ -z "${TMPDIR:-}" ] && [ -w /dev/shm ] && export TMPDIR=/dev/shm
status=0
for t in "${targets[@]}"; do
  corpus="$build/corpus/$t"
  findings="$build/findings/$t"
  rm -rf "$findings"
  mkdir -p "$corpus" "$findings" "$build/seeds/$t"
  if [ "$t" = read ]; then cp "$root/tests/data/sample.jpg" "$corpus/" 2>/dev/null; fi
  log="$build/$t.log"
  # -close_fd_mask=3: the library's log lines stay out of the fuzzer's output.
  # The library keeps a few allocations on purpose (tests/lsan.supp), so
  # nearly every input would stop the world for a leak scan: the fuzzing
  # runs without it (address and undefined-behaviour checks stay on, about
  # ten times faster), and every input of the grown corpus is then run once
  # more with the leak check.
  (cd "$findings" && "$build/tests/fuzz/fuzz_$t" -max_total_time="$seconds" -jobs=1 -workers=1 \
      -close_fd_mask=3 -max_len=4096 -timeout=10 -rss_limit_mb=2048 -detect_leaks=0 \
      -dict="$root/tests/fuzz/yax.dict" -artifact_prefix="$findings/" \
      "$corpus" "$build/seeds/$t" "$root/tests/fuzz/regressions/$t" >"$log" 2>&1)
  rc=$?
  # with -jobs=1 the fuzzing runs in one child whose output is fuzz-0.log
  cat "$findings"/fuzz-*.log >>"$log" 2>/dev/null
  (cd "$findings" && "$build/tests/fuzz/fuzz_$t" -runs=0 -detect_leaks=1 -close_fd_mask=3 \
      -max_len=4096 -timeout=10 -rss_limit_mb=2048 -artifact_prefix="$findings/" \
      "$corpus" "$root/tests/fuzz/regressions/$t" >"$log.leaks" 2>&1) || rc=1
  leak_runs=$(grep -E '^#[0-9]+.*INITED' "$log.leaks" | sed -E 's/^#([0-9]+).*/\1/')
  done_line=$(grep -E '^#[0-9]+.*(DONE|pulse|NEW|REDUCE|INITED)' "$log" | tail -1)
  execs=$(echo "$done_line" | sed -E 's/^#([0-9]+).*/\1/')
  cov=$(echo "$done_line" | sed -nE 's/.*cov: ([0-9]+).*/\1/p')
  ft=$(echo "$done_line" | sed -nE 's/.*ft: ([0-9]+).*/\1/p')
  rate=$(echo "$done_line" | sed -nE 's/.*exec\/s: ([0-9]+).*/\1/p')
  crashes=$(find "$findings" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' -o -name 'oom-*' \) | wc -l)
  printf 'fuzz[%s]: execs %s exec/s %s cov %s ft %s corpus %s leak-checked %s findings %s\n' \
    "$t" "${execs:-0}" "${rate:-?}" "${cov:-?}" "${ft:-?}" "$(ls "$corpus" | wc -l)" "${leak_runs:-0}" "$crashes"
  if [ $rc -ne 0 ] || [ "$crashes" -ne 0 ]; then
    status=1
    grep -hE 'ERROR|invariant|SUMMARY' "$log" "$log.leaks" | head -5
  fi
done
exit $status

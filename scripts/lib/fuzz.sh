# Fuzzing of the JSON reader. Sourced; defines run_fuzz_targets.

# Builds the fuzz targets with clang in build-fuzz and runs each for about
# 30 seconds from the seeds in fuzz/corpus (and the JSON test corpus when it
# is present). New inputs go to fuzz/corpus-run/<target>, findings to
# build-fuzz/<target>-crash-*. Returns non-zero when a target found a fault.
run_fuzz_targets() {
  local root build suite target status=0
  root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
  build="$root/build-fuzz"
  suite="$root/../shared/testdata/json-suite/test_parsing"
  CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DMFA_FUZZ=ON -DMFA_TESTS=OFF >/dev/null || return 1
  cmake --build "$build" -j2 --target fuzz_json_parse fuzz_json_roundtrip fuzz_settings_json || return 1
  for target in fuzz_json_parse fuzz_json_roundtrip fuzz_settings_json; do
    local seeds=("$root/fuzz/corpus")
    [ -d "$suite" ] && seeds+=("$suite")
    mkdir -p "$root/fuzz/corpus-run/$target"
    echo "Fuzzing $target for 30 s"
    # Standard output is closed: an exhausted heap reports on it, by design.
    if ! "$build/bin/$target" -max_total_time=30 -timeout=10 -rss_limit_mb=2048 \
      -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$build/$target-" \
      "$root/fuzz/corpus-run/$target" "${seeds[@]}" 2>"$build/$target.log"; then
      echo "$target found a fault; see $build/$target.log" >&2
      tail -n 40 "$build/$target.log" >&2
      status=1
    fi
  done
  return $status
}

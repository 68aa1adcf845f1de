# Fuzzing. Sourced; scripts/test calls run_fuzz_targets, scripts/fuzz runs
# longer campaigns with the same pieces.
#
# Every fuzz/NAME_fuzzer.cpp is a target, built with clang as fuzz_NAME in
# build-fuzz. A target's inputs come from each folder of fuzz/corpus (the
# committed seeds) and fuzz/regressions (inputs that once broke a target)
# named NAME, or a prefix of NAME ending before "_" (fuzz/corpus/json serves
# json_parse and json_roundtrip); the JSON targets also read the public JSON
# test corpus when it is present. Inputs a run finds new go to
# fuzz/corpus-run/NAME (not committed); an input that breaks a target is
# copied to fuzz/regressions/NAME, where the test suite replays it.

fuzz_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
fuzz_build_dir=$fuzz_root/build-fuzz
fuzz_json_suite=$fuzz_root/../shared/testdata/json-suite/test_parsing

fuzz_target_names() {
  local source name
  for source in "$fuzz_root"/fuzz/*_fuzzer.cpp; do
    [ -e "$source" ] || continue
    name=${source##*/}
    echo "${name%_fuzzer.cpp}"
  done
}

fuzz_build() {
  CC=clang CXX=clang++ cmake -S "$fuzz_root" -B "$fuzz_build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DMFA_FUZZ=ON -DMFA_TESTS=OFF >/dev/null || return 1
  cmake --build "$fuzz_build_dir" -j "$(nproc)" --target fuzz_targets
}

fuzz_input_dirs() {
  local target=$1 dir folder
  for dir in "$fuzz_root"/fuzz/corpus/* "$fuzz_root"/fuzz/regressions/*; do
    [ -d "$dir" ] || continue
    folder=${dir##*/}
    if [[ $target == "$folder" || $target == "$folder"_* ]]; then echo "$dir"; fi
  done
  if [[ $target == json_* && -d $fuzz_json_suite ]]; then echo "$fuzz_json_suite"; fi
}

# Runs target $1 for $2 seconds, logging to build-fuzz/NAME.log. Returns
# non-zero when the target broke, after keeping the input that broke it.
fuzz_run_target() {
  local target=$1 seconds=$2 artifact inputs
  local log=$fuzz_build_dir/$target.log prefix=$fuzz_build_dir/$target-
  local options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
    -artifact_prefix="$prefix")
  mapfile -t inputs < <(fuzz_input_dirs "$target")
  mkdir -p "$fuzz_root/fuzz/corpus-run/$target"
  rm -f "$prefix"crash-* "$prefix"leak-* "$prefix"oom-* "$prefix"timeout-*
  # Standard output is closed: some readers report on it by design.
  "$fuzz_build_dir/bin/fuzz_$target" "${options[@]}" -close_fd_mask=1 \
    "$fuzz_root/fuzz/corpus-run/$target" "${inputs[@]}" >"$log" 2>&1 && return 0
  for artifact in "$prefix"crash-* "$prefix"leak-* "$prefix"oom-* "$prefix"timeout-*; do
    [ -e "$artifact" ] || continue
    mkdir -p "$fuzz_root/fuzz/regressions/$target"
    cp "$artifact" "$fuzz_root/fuzz/regressions/$target/"
    echo "$target broke on an input, kept as fuzz/regressions/$target/${artifact#"$prefix"}" >&2
  done
  return 1
}

# Runs the targets after $1 and $2 for $1 seconds each, $2 at a time; then
# shows the end of the log of each target that broke.
fuzz_run_targets() {
  local seconds=$1 parallel=$2 target status=0
  shift 2
  for target in "$@"; do
    while [ "$(jobs -rp | wc -l)" -ge "$parallel" ]; do wait -n || true; done
    (if fuzz_run_target "$target" "$seconds"; then echo 0; else echo 1; fi \
      >"$fuzz_build_dir/$target.status") &
  done
  wait
  for target in "$@"; do
    if [ "$(cat "$fuzz_build_dir/$target.status")" != 0 ]; then
      echo "fuzz_$target broke; see $fuzz_build_dir/$target.log" >&2
      grep -v '^#' "$fuzz_build_dir/$target.log" | tail -n 30 >&2 || true
      status=1
    fi
  done
  return $status
}

# One line per target from its last log: inputs run, their rate, the
# coverage reached (edges and features) and the outcome.
fuzz_report() {
  local target log execs rate cov ft outcome
  printf '%-16s %12s %9s %7s %8s  %s\n' target execs execs/s edges features outcome
  for target in "$@"; do
    log=$fuzz_build_dir/$target.log
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1 | cut -d' ' -f2 || true)
    ft=$(grep -o 'ft: [0-9]*' "$log" | tail -n 1 | cut -d' ' -f2 || true)
    outcome=clean
    if [ "$(cat "$fuzz_build_dir/$target.status")" != 0 ]; then
      outcome="broke: $(grep -m1 -o 'fuzz oracle failed.*\|ERROR: [A-Za-z]*: [a-z -]*' "$log" || true)"
    fi
    printf '%-16s %12s %9s %7s %8s  %s\n' "$target" "${execs:-?}" "${rate:-?}" "${cov:-?}" \
      "${ft:-?}" "$outcome"
  done
}

# The fuzz step of scripts/test: every target, in about MFA_FUZZ_SECONDS
# (default 100) of fuzzing in all, split evenly, one target per processor.
run_fuzz_targets() {
  local targets parallel rounds seconds
  fuzz_build || return 1
  mapfile -t targets < <(fuzz_target_names)
  parallel=$(nproc)
  rounds=$(((${#targets[@]} + parallel - 1) / parallel))
  seconds=$((${MFA_FUZZ_SECONDS:-100} / rounds))
  [ "$seconds" -ge 5 ] || seconds=5
  echo "Fuzzing ${#targets[@]} targets for $seconds s each, $parallel at a time"
  fuzz_run_targets "$seconds" "$parallel" "${targets[@]}"
}

# Runs the command-line tool under valgrind (the tests labelled "valgrind").
# valgrind cannot run the sanitized test build, so this configures a build of
# its own in build-valgrind. Sourced, not run; call run_valgrind_checks while
# the services of scripts/test are up.

run_valgrind_checks() {
  local dir=$project_root/build-valgrind
  cmake -S "$project_root" -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DMFA_WERROR=ON >/dev/null
  cmake --build "$dir" -j "$(nproc)" --target ldapfactor test_cli
  ctest --test-dir "$dir" --output-on-failure -L valgrind
}

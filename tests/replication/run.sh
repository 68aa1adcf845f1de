#!/usr/bin/env bash
# Runs the replication suite (the test binary given) against a primary, its
# standby and a pooler of its own, started here and stopped on every exit.
# The failover cases run last and apart: they leave the primary down.
set -uo pipefail
suite=$1
root=$(cd "$(dirname "$0")/../.." && pwd)
source "$root/scripts/lib/common.sh"
source "$root/scripts/lib/service-postgres.sh"
source "$root/scripts/lib/service-replication.sh"

if ! replication_available; then
  [ "${MFA_REQUIRE_SERVICES:-}" = 1 ] && exit 1
  echo "replication suite skipped: run it through scripts/test"
  exit 77
fi

dir=$(mktemp -d /tmp/mfa-replication.XXXXXX)
suite_pid=
cleanup() {
  [ -n "$suite_pid" ] && kill "$suite_pid" 2>/dev/null
  replication_stop "$dir"
  rm -rf "$dir"
}
trap cleanup EXIT
trap 'exit 1' INT TERM
replication_start "$dir" >"$dir/start.log" 2>&1 || {
  cat "$dir/start.log" >&2
  exit 1
}

# Each run is bounded well below the test's own timeout, so that the servers
# are always stopped here rather than left behind by a killed runner; it runs
# in the background so that a signal reaches the trap at once.
run_suite() {
  timeout "$1" "$suite" --gtest_filter="$2" &
  suite_pid=$!
  wait "$suite_pid"
  local status=$?
  suite_pid=
  return $status
}
status=0
run_suite 150 '-*Failover*' || status=1
run_suite 60 '*Failover*' || status=1
exit $status

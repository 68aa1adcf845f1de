# PostgreSQL for the tests and the demo: a throwaway cluster owned by the
# unprivileged postgres account (the server refuses to run as root), reached
# only through a unix socket in a private directory. Sourced, not run.
#
#   postgres_start DIR    cluster in DIR plus the mfadb database; exports
#                         PGHOST, PGPORT and PGUSER so that the bare
#                         connection string "dbname=mfadb " reaches it
#   postgres_stop         stops the cluster started last
#
# postgres_cluster_start, postgres_create_mfadb and postgres_cluster_stop are
# the pieces, for scripts that want a cluster in a directory of their own;
# postgres_owned_dirs and postgres_server_start serve scripts that make a data
# directory some other way (a standby's base backup).

postgres_os_user=postgres
postgres_port=5432

postgres_bindir() {
  local dir
  dir=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -n 1)
  [ -n "$dir" ] || {
    echo "PostgreSQL server binaries not found" >&2
    return 1
  }
  echo "$dir"
}

# Runs a command as the account that owns the cluster, from the root
# directory: that account may not be allowed into the caller's (root's home).
postgres_as_owner() {
  if [ "$(id -un)" = "$postgres_os_user" ]; then
    "$@"
  elif [ "$(id -u)" -eq 0 ]; then
    (cd / && runuser -u "$postgres_os_user" -- "$@")
  else
    (cd / && sudo -u "$postgres_os_user" -- "$@")
  fi
}

# postgres_owned_dirs DIR...: creates the directories, owned by the account
# that runs the server.
postgres_owned_dirs() {
  mkdir -p "$@" || return 1
  [ "$(id -un)" = "$postgres_os_user" ] || as_root chown "$postgres_os_user:" "$@"
}

# postgres_server_start DATA SOCKET: starts the server of the data directory
# DATA, listening only on a unix socket in SOCKET; its log is DATA/server.log.
postgres_server_start() {
  local data=$1 socket=$2 bindir
  bindir=$(postgres_bindir) || return 1
  # No TCP listener: tests and demos on one machine never compete for a port.
  postgres_as_owner "$bindir/pg_ctl" -D "$data" -l "$data/server.log" -w -s \
    -o "-c listen_addresses='' -c unix_socket_directories='$socket' -p $postgres_port -c fsync=off -c synchronous_commit=off -c full_page_writes=off" \
    start || {
    cat "$data/server.log" >&2
    return 1
  }
}

# postgres_cluster_start DIR: initialises and starts a cluster whose data and
# socket live in DIR (created if missing), gives the invoking account a
# superuser role and exports PGHOST, PGPORT and PGUSER.
postgres_cluster_start() {
  local dir=$1 bindir me
  bindir=$(postgres_bindir) || return 1
  me=$(id -un)
  mkdir -p "$dir"
  chmod 755 "$dir"
  postgres_owned_dirs "$dir/data" "$dir/socket" || return 1
  postgres_as_owner chmod 700 "$dir/data"
  postgres_as_owner "$bindir/initdb" -D "$dir/data" -U "$postgres_os_user" -A trust \
    -E UTF8 --locale=C --no-sync >"$dir/initdb.log" 2>&1 || {
    cat "$dir/initdb.log" >&2
    return 1
  }
  postgres_server_start "$dir/data" "$dir/socket" || return 1
  postgres_cluster_dir=$dir
  export PGHOST="$dir/socket" PGPORT=$postgres_port PGUSER=$me
  if [ "$me" != "$postgres_os_user" ]; then
    psql -q -U "$postgres_os_user" -d postgres -v ON_ERROR_STOP=1 \
      -c "create role \"$me\" superuser login" >/dev/null || return 1
  fi
}

# postgres_create_mfadb: creates mfadb in the running cluster from the
# project's schema.
postgres_create_mfadb() {
  local root
  root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
  psql -q -d postgres -v ON_ERROR_STOP=1 -c "create database mfadb" >/dev/null &&
    psql -q -d mfadb -v ON_ERROR_STOP=1 -f "$root/db/schema.sql" >/dev/null
}

# postgres_cluster_stop [DIR]: stops the cluster in DIR, by default the one
# started last.
postgres_cluster_stop() {
  local dir=${1:-${postgres_cluster_dir:-}} bindir
  [ -n "$dir" ] && [ -d "$dir/data" ] || return 0
  bindir=$(postgres_bindir) || return 1
  postgres_as_owner "$bindir/pg_ctl" -D "$dir/data" -m fast -w -s stop
}

postgres_start() {
  postgres_cluster_start "$1/postgres" && postgres_create_mfadb
}

postgres_stop() {
  postgres_cluster_stop
}

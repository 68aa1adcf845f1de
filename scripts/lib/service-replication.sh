# A replicated MFA database for the tests: a primary, one streaming standby
# made from it with pg_basebackup -R, and pgbouncer pooling transactions in
# front of the primary. Every server listens only on a unix socket in a
# directory of its own. Sourced after common.sh and service-postgres.sh.
#
#   replication_available     0 when the server binaries and pgbouncer exist;
#                             otherwise says what is missing
#   replication_start DIR     starts the three in DIR and exports
#                             MFA_REPLICATION_DIR, MFA_REPLICATION_PRIMARY,
#                             MFA_REPLICATION_STANDBY (socket directories),
#                             MFA_REPLICATION_POOLER and
#                             MFA_REPLICATION_POOLER_PORT, and PGHOST, PGPORT,
#                             PGUSER for the primary
#   replication_stop_primary DIR, replication_promote DIR
#                             the two halves of a failover
#   replication_stop DIR      stops whatever of the three still runs

replication_pooler_port=6432

replication_pgbouncer() {
  command -v pgbouncer || { [ -x /usr/sbin/pgbouncer ] && echo /usr/sbin/pgbouncer; }
}

replication_available() {
  postgres_bindir >/dev/null || return 1
  replication_pgbouncer >/dev/null || {
    echo "pgbouncer not found" >&2
    return 1
  }
}

replication_start() {
  local dir=$1 bindir pooler
  bindir=$(postgres_bindir) || return 1
  pooler=$(replication_pgbouncer) || return 1
  mkdir -p "$dir" && chmod 755 "$dir" || return 1

  postgres_cluster_start "$dir/primary" && postgres_create_mfadb || return 1

  # The standby starts from a copy of the primary, mfadb and roles included;
  # -R leaves it the standby.signal and the primary_conninfo to stream with.
  postgres_owned_dirs "$dir/standby/data" "$dir/standby/socket" || return 1
  postgres_as_owner chmod 700 "$dir/standby/data"
  postgres_as_owner "$bindir/pg_basebackup" -h "$dir/primary/socket" -p "$postgres_port" \
    -U "$postgres_os_user" -D "$dir/standby/data" -R --checkpoint=fast --no-sync || return 1
  # The copy carries the primary's log; the standby starts one of its own.
  postgres_as_owner rm -f "$dir/standby/data/server.log"
  postgres_server_start "$dir/standby/data" "$dir/standby/socket" || return 1

  # One server connection for all clients: whatever session state one client
  # left behind, the next one would find.
  postgres_owned_dirs "$dir/pooler" || return 1
  cat >"$dir/pooler.ini" <<EOF
[databases]
mfadb = host=$dir/primary/socket port=$postgres_port dbname=mfadb

[pgbouncer]
unix_socket_dir = $dir/pooler
listen_port = $replication_pooler_port
pool_mode = transaction
default_pool_size = 1
auth_type = trust
auth_file = $dir/pooler.users
pidfile = $dir/pooler/pgbouncer.pid
logfile = $dir/pooler/pgbouncer.log
EOF
  printf '"%s" ""\n' "$PGUSER" >"$dir/pooler.users"
  chmod 644 "$dir/pooler.ini" "$dir/pooler.users"
  postgres_as_owner "$pooler" -d -q "$dir/pooler.ini" || return 1
  local tries=0
  until [ -S "$dir/pooler/.s.PGSQL.$replication_pooler_port" ]; do
    ((++tries < 200)) || {
      echo "pgbouncer did not open its socket" >&2
      cat "$dir/pooler/pgbouncer.log" >&2
      return 1
    }
    sleep 0.05
  done

  export MFA_REPLICATION_DIR=$dir
  export MFA_REPLICATION_PRIMARY=$dir/primary/socket
  export MFA_REPLICATION_STANDBY=$dir/standby/socket
  export MFA_REPLICATION_POOLER=$dir/pooler
  export MFA_REPLICATION_POOLER_PORT=$replication_pooler_port
}

# replication_server_stop DATA: stops the server of DATA if it runs.
replication_server_stop() {
  local bindir
  bindir=$(postgres_bindir) || return 1
  postgres_as_owner "$bindir/pg_ctl" -D "$1" status >/dev/null 2>&1 || return 0
  postgres_as_owner "$bindir/pg_ctl" -D "$1" -m fast -w -s stop
}

replication_stop_primary() {
  replication_server_stop "$1/primary/data"
}

replication_promote() {
  local bindir
  bindir=$(postgres_bindir) || return 1
  postgres_as_owner "$bindir/pg_ctl" -D "$1/standby/data" -w -s promote
}

replication_stop() {
  local dir=$1 pidfile=$1/pooler/pgbouncer.pid pid tries=0
  # pgbouncer removes its pid file as it exits.
  if pid=$(cat "$pidfile" 2>/dev/null) && [ -n "$pid" ]; then
    postgres_as_owner kill -TERM "$pid" 2>/dev/null
    while [ -e "$pidfile" ] && ((++tries < 100)); do
      sleep 0.05
    done
  fi
  replication_server_stop "$dir/standby/data"
  replication_server_stop "$dir/primary/data"
}

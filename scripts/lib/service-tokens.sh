# Software PKCS#11 tokens for the tests. Sourced by scripts/test, not run.
#
# tokens_start DIR: a throwaway SoftHSM2 token store in DIR with two tokens
# (one whose label fills all 32 characters), and the openCryptoki software
# token behind its slot daemon. Exports what the tests read:
#   MFA_SOFTHSM_MODULE, SOFTHSM2_CONF, MFA_TEST_TOKEN_LABEL,
#   MFA_TEST_LONG_TOKEN_LABEL, MFA_OPENCRYPTOKI_MODULE,
#   MFA_OPENCRYPTOKI_TOKEN_LABEL, and MFA_TEST_PIN_FILE: a file readable only
#   by its owner with the user PIN that both tokens share.
# tokens_stop: stops the slot daemon if tokens_start started it and no other
# run uses it.

tokens_softhsm_module=/usr/lib/softhsm/libsofthsm2.so
tokens_softhsm_label=MFA-SOFTHSM-TEST
tokens_softhsm_long_label=MFA-SOFTHSM-LABEL-FILLS-32-CHARS
tokens_ock_modules=(/usr/lib/x86_64-linux-gnu/opencryptoki/libopencryptoki.so
  /usr/lib/x86_64-linux-gnu/pkcs11/libopencryptoki.so)
tokens_ock_label=MFA-OCK-TEST
tokens_ock_slot=3 # the software token in the default slot configuration
tokens_ock_so_pin=87654321 # the SO PIN of a token that was never initialised
tokens_user_pin=24681357    # the user PIN of every test token
tokens_ock_pidfile=/var/run/pkcsslotd.pid
tokens_ock_lockfile=/tmp/mfa-opencryptoki.lock
tokens_ock_started_pid=
tokens_ock_users= # lock descriptors, see tokens_start_opencryptoki
tokens_ock_start=

tokens_start() {
  local dir=$1
  tokens_start_softhsm "$dir" || return 1
  tokens_start_opencryptoki || return 1
  (umask 077 && printf '%s\n' "$tokens_user_pin" >"$dir/user.pin")
  export MFA_TEST_PIN_FILE=$dir/user.pin
}

tokens_start_softhsm() {
  local dir=$1/softhsm label
  mkdir -p "$dir/tokens"
  printf 'directories.tokendir = %s\nobjectstore.backend = file\nlog.level = ERROR\n' \
    "$dir/tokens" >"$dir/softhsm2.conf"
  export SOFTHSM2_CONF=$dir/softhsm2.conf
  for label in "$tokens_softhsm_label" "$tokens_softhsm_long_label"; do
    softhsm2-util --init-token --free --label "$label" --so-pin 12345678 --pin "$tokens_user_pin" >/dev/null ||
      { echo "tokens: cannot initialise the SoftHSM2 token $label" >&2; return 1; }
  done
  export MFA_SOFTHSM_MODULE=$tokens_softhsm_module
  export MFA_TEST_TOKEN_LABEL=$tokens_softhsm_label
  export MFA_TEST_LONG_TOKEN_LABEL=$tokens_softhsm_long_label
}

# Whether pid is a live slot daemon. A stopped daemon can linger as a zombie
# when nothing reaps it.
tokens_ock_alive() {
  local stat
  stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
  [[ $stat == "$1 (pkcsslotd) "[^Z]* ]]
}

# The pid of the running slot daemon, or nothing.
tokens_ock_daemon_pid() {
  local pid
  [ -r "$tokens_ock_pidfile" ] || return 0
  pid=$(cat "$tokens_ock_pidfile")
  [ -n "$pid" ] && tokens_ock_alive "$pid" && echo "$pid"
  return 0
}

# Prints the label and flags lines of the software token.
tokens_ock_token_info() {
  pkcsconf -t -c "$tokens_ock_slot" 2>/dev/null | grep -E '^[[:space:]]*(Label|Flags):'
}

# Whether the software token is initialised with our label. pkcsconf exits 0
# even when it fails, so the token flags are the judge.
tokens_ock_token_ready() {
  local info
  info=$(tokens_ock_token_info)
  grep -q "Label: $tokens_ock_label *\$" <<<"$info" && grep -q TOKEN_INITIALIZED <<<"$info"
}

tokens_start_opencryptoki() {
  local module="" candidate status=0
  for candidate in "${tokens_ock_modules[@]}"; do
    [ -e "$candidate" ] && { module=$candidate; break; }
  done
  [ -n "$module" ] || { echo "tokens: the openCryptoki library is not installed" >&2; return 1; }
  # Several runs may share the daemon. Each holds a shared lock on the users
  # file while it runs; starting the daemon and stopping it happen under the
  # start lock, and only the last user stops it.
  tokens_ock_open_lock tokens_ock_start "$tokens_ock_lockfile.start"
  tokens_ock_open_lock tokens_ock_users "$tokens_ock_lockfile"
  flock "$tokens_ock_start"
  flock -s "$tokens_ock_users"
  tokens_prepare_opencryptoki || status=1
  tokens_ock_close_lock tokens_ock_start
  [ "$status" -eq 0 ] || { tokens_ock_close_lock tokens_ock_users; return 1; }
  export MFA_OPENCRYPTOKI_MODULE=$module
  export MFA_OPENCRYPTOKI_TOKEN_LABEL=$tokens_ock_label
}

# Opens file read-only on a new descriptor kept in the variable named name. A
# read-only descriptor locks as well and needs no write access to a lock file
# that another user created.
tokens_ock_open_lock() {
  local -n descriptor=$1
  : 2>/dev/null >>"$2"
  exec {descriptor}<"$2"
}

tokens_ock_close_lock() {
  local -n descriptor=$1
  [ -n "$descriptor" ] || return 0
  exec {descriptor}<&-
  descriptor=
}

# Starts the slot daemon unless one runs, and initialises the token unless it
# carries our label. Runs under the start lock.
tokens_prepare_opencryptoki() {
  local pid i

  # A second daemon would take over the first one's shared memory, so an
  # already running daemon is reused and left running.
  pid=$(tokens_ock_daemon_pid)
  if [ -z "$pid" ]; then
    as_root mkdir -p /var/log/opencryptoki
    # The daemon must not inherit the locks, or it would hold them forever.
    as_root /usr/sbin/pkcsslotd {tokens_ock_start}<&- {tokens_ock_users}<&- ||
      { echo "tokens: pkcsslotd did not start" >&2; return 1; }
    for ((i = 0; i < 100; i++)); do
      pid=$(tokens_ock_daemon_pid)
      [ -n "$pid" ] && break
      sleep 0.1
    done
    [ -n "$pid" ] || { echo "tokens: pkcsslotd wrote no pid file" >&2; return 1; }
    tokens_ock_started_pid=$pid
  fi

  if ! tokens_ock_token_ready; then
    printf '%s\n' "$tokens_ock_label" |
      as_root pkcsconf -I -c "$tokens_ock_slot" -S "$tokens_ock_so_pin" >/dev/null 2>&1
  fi
  if ! tokens_ock_token_ready; then
    echo "tokens: cannot initialise the openCryptoki software token:" >&2
    tokens_ock_token_info >&2
    return 1
  fi
  # Set anew on every start: this also clears a count of wrong PINs that an
  # earlier run may have left.
  as_root pkcsconf -u -c "$tokens_ock_slot" -S "$tokens_ock_so_pin" -n "$tokens_user_pin" \
    >/dev/null 2>&1
  tokens_ock_token_info | grep -q USER_PIN_INITIALIZED || {
    echo "tokens: cannot set the user PIN of the openCryptoki software token" >&2
    return 1
  }
}

tokens_stop() {
  local i
  if [ -n "$tokens_ock_started_pid" ]; then
    tokens_ock_open_lock tokens_ock_start "$tokens_ock_lockfile.start"
    flock "$tokens_ock_start"
    # A daemon that another run still uses stays running; a later run
    # reuses it.
    if flock -xn "$tokens_ock_users"; then
      as_root kill "$tokens_ock_started_pid" 2>/dev/null || true
      for ((i = 0; i < 50; i++)); do
        tokens_ock_alive "$tokens_ock_started_pid" || break
        sleep 0.1
      done
    fi
    tokens_ock_close_lock tokens_ock_start
  fi
  tokens_ock_started_pid=
  tokens_ock_close_lock tokens_ock_users
}

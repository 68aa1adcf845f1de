#!/usr/bin/env bash
# Installs the library of a build tree into a temporary prefix and builds two
# consumers against that tree alone: the C11 program through pkg-config and
# the C++ program through find_package. Both then read a user's LDAP factor
# data from the test database.
#
# Environment: MFA_BUILD_DIR (the build tree), MFA_VERSION (its project
# version), CC and CXX (its compilers), MFA_CONSUMER_FLAGS (compiler and linker flags the build tree's own code was
# built with, here the sanitizers). Exits 77 (skipped) without a database
# unless MFA_REQUIRE_SERVICES=1.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
read -r -a flags <<<"${MFA_CONSUMER_FLAGS:-}"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$MFA_BUILD_DIR" --prefix "$prefix" --component library >/dev/null

# Only the installed package files say how to build: no flags of our own.
pc=$(find "$prefix" -name mfa.pc)
export PKG_CONFIG_PATH=${pc%/*}
[ "$(pkg-config --modversion mfa)" = "$MFA_VERSION" ] ||
  { echo "mfa.pc says version $(pkg-config --modversion mfa), not $MFA_VERSION" >&2; exit 1; }
read -r -a pc_cflags <<<"$(pkg-config --cflags mfa)"
read -r -a pc_libs <<<"$(pkg-config --libs mfa)"

# Every public header stands alone, as C11. The declaration after it keeps a
# header of macros alone from making an empty translation unit.
(cd "$prefix/include/mfa" && find . -name '*.h' | sort) | while read -r header; do
  printf '#include <%s>\ntypedef int header_stands_alone;\n' "${header#./}" |
    "$CC" -x c -std=c11 -pedantic-errors -Wall -Wextra -Werror -fsyntax-only "${pc_cflags[@]}" - ||
    { echo "installed header ${header#./} does not compile on its own" >&2; exit 1; }
done

"$CC" -std=c11 -Wall -Wextra -Werror "${flags[@]}" "${pc_cflags[@]}" \
  "$here/consumer/consumer.c" -o "$work/consumer_c" "${pc_libs[@]}"

cmake -S "$here/consumer" -B "$work/cxx" -DCMAKE_PREFIX_PATH="$prefix" -DMFA_VERSION="$MFA_VERSION" \
  -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror ${flags[*]}" \
  -DCMAKE_EXE_LINKER_FLAGS="${flags[*]}" >"$work/cxx.log" ||
  { cat "$work/cxx.log" >&2; exit 1; }
grep -qF "mfa $MFA_VERSION from $prefix/" "$work/cxx.log" ||
  { echo "find_package did not take mfa from the installed tree" >&2; cat "$work/cxx.log" >&2; exit 1; }
cmake --build "$work/cxx" >/dev/null

if [ -z "${PGHOST:-}" ]; then
  if [ "${MFA_REQUIRE_SERVICES:-}" = 1 ]; then
    echo "PGHOST is not set although the services were started" >&2
    exit 1
  fi
  echo "consumers built but not run: PGHOST is not set (run the suite through scripts/test)"
  exit 77
fi

psql -q -d mfadb -v ON_ERROR_STOP=1 >/dev/null <<'SQL'
delete from qmx_userfactor where userid in (select userid from qmx_user where unixuid = 'consumer');
delete from qmx_user where unixuid = 'consumer';
insert into qmx_user (unixuid) values ('consumer');
insert into qmx_userfactor (userid, factorid, factortags, isactive)
  select u.userid, f.factorid, '{"DN":"cn=Consumer,dc=example","SEARCHVAL":"consumer@example.com"}', 1
  from qmx_user u, qmx_factor f where u.unixuid = 'consumer' and f.factorname = 'QMXLDAP1';
SQL
expected=$'DN=cn=Consumer,dc=example\nSEARCHVAL=consumer@example.com'
# A shared libmfa is found where it was installed.
export LD_LIBRARY_PATH=$(pkg-config --variable=libdir mfa)${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
for consumer in "$work/consumer_c" "$work/cxx/consumer_cxx"; do
  output=$("$consumer" consumer)
  [ "$output" = "$expected" ] ||
    { printf '%s printed:\n%s\nexpected:\n%s\n' "${consumer##*/}" "$output" "$expected" >&2; exit 1; }
done
echo "both consumers read the factor data through the installed library"

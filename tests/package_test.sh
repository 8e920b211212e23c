#!/usr/bin/env bash
# Builds the Debian packages, runs lintian, installs them, checks what a node gets (tool, man
# pages, completion, units, exported symbols, building against the library), then purges them
# and checks that nothing of theirs is left and /etc/quorvex was not touched. Needs root.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

pass=0 fail=0
ok() { pass=$((pass + 1)); echo "ok: $*"; }
bad() { fail=$((fail + 1)); echo "FAIL: $*"; }
check() { local what=$1; shift; if "$@"; then ok "$what"; else bad "$what"; fi; }

scripts/package
need=()
for p in lintian man-db systemd bash-completion binutils; do
    dpkg -s "$p" >/dev/null 2>&1 || need+=("$p")
done
if [ ${#need[@]} -gt 0 ]; then
    qx_as_root apt-get update -qq
    qx_as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
        --no-install-recommends "${need[@]}" >/dev/null
fi

echo "== lintian"
check "lintian: no error or warning" lintian --fail-on error,warning dist/*.changes

# The node's configuration: a marker that installing and purging must leave alone.
made_etc=0
[ -d /etc/quorvex ] || { mkdir -p /etc/quorvex; made_etc=1; }
marker=/etc/quorvex/package-test.conf
echo "LOG_LEVEL notice" >"$marker"
etc_before=$(find /etc/quorvex -exec stat -c '%n %s %Y %a' {} + | sort)
tmp=$(mktemp -d)
cleanup() {
    rm -rf "$tmp" "$marker"
    [ $made_etc = 0 ] || rmdir /etc/quorvex 2>/dev/null || true
}
trap cleanup EXIT

echo "== install"
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq ./dist/*.deb >/dev/null
for d in dist/*.deb; do dpkg-deb -c "$d" | awk '$1 !~ /^d/ {sub(/^\./, "", $6); print $6}'; done \
    >"$tmp/files"

expected="/usr/sbin/spoolcap /usr/include/quorvex/quota.h /usr/include/quorvex/qx_paths.h
    /usr/share/doc/libquorvex-dev/examples/quota_example.c /usr/share/bash-completion/completions/spoolcap
    /usr/share/doc/spoolcap/examples/local.conf /usr/share/doc/spoolcap/examples/sqldbase.conf"
absent=$(for f in $expected; do [ -e "$f" ] || echo "$f"; done)
check "installed files present${absent:+ (missing: $absent)}" test -z "$absent"
check "library, link and pkg-config file" pkg-config --exists quorvex
check "spoolcap --help" sh -c '/usr/sbin/spoolcap --help | grep -q "^Quorvex spoolcap$"'
for page in /usr/share/man/man8/spoolcap.8.gz /usr/share/man/man5/quorvex.5.gz; do
    check "$page renders without warnings" sh -c \
        "[ -f $page ] && [ -z \"\$(LC_ALL=C.UTF-8 man --warnings -l $page 2>&1 >/dev/null)\" ]"
done
check "completion offers the action words" bash -c '
    . /usr/share/bash-completion/completions/spoolcap
    COMP_WORDS=(spoolcap --action ""); COMP_CWORD=2; _spoolcap
    [ "${COMPREPLY[*]}" = "set show" ]'
check "timer enabled" test -L /etc/systemd/system/timers.target.wants/spoolcap.timer
units="/lib/systemd/system/spoolcap.service /lib/systemd/system/spoolcap.timer"
# shellcheck disable=SC2086
check "systemd-analyze verify" sh -c \
    "out=\$(systemd-analyze verify $units 2>&1); [ -z \"\$out\" ] || { echo \"\$out\"; false; }"

echo "== exported symbols"
lib=$(find /usr/lib -name libquorvex.so.1 | head -n1)
nm -D --defined-only "$lib" | awk '{print $NF}' | sort >"$tmp/exported"
sed -n 's/^ \([^@ ]*\)@.*/\1/p' debian/libquorvex1.symbols | sort >"$tmp/listed"
if grep -q '^_Z' "$tmp/exported"; then
    bad "internal C++ symbols exported: $(grep '^_Z' "$tmp/exported" | head -n5 | tr '\n' ' ')"
fi
missing=$(comm -13 "$tmp/exported" "$tmp/listed") extra=$(comm -23 "$tmp/exported" "$tmp/listed")
[ -z "$missing" ] || echo "in debian/libquorvex1.symbols, not exported:" $missing
[ -z "$extra" ] || echo "exported, not in debian/libquorvex1.symbols:" $extra
[ -z "$missing$extra" ] || echo "(a new public function: add \" name@Base <version>\" to debian/libquorvex1.symbols)"
check "exported symbols equal debian/libquorvex1.symbols" test -z "$missing$extra"

echo "== build against the installed library"
check "example compiles and links with pkg-config" sh -c "cc -std=c11 -Wall -Wextra -Werror \
    -o $tmp/quota_example examples/quota_example.c \$(pkg-config --cflags --libs quorvex)"
check "example runs" sh -c "$tmp/quota_example 2>&1 | grep -q '^usage:'"

echo "== purge"
DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq spoolcap libquorvex-dev libquorvex1 >/dev/null
left=$(while read -r f; do if [ -e "$f" ] || [ -L "$f" ]; then echo "$f"; fi; done <"$tmp/files")
check "purge leaves none of the packages' files${left:+: $left}" test -z "$left"
check "purge removes the timer link" test ! -e /etc/systemd/system/timers.target.wants/spoolcap.timer
check "/etc/quorvex untouched" test "$etc_before" = "$(find /etc/quorvex -exec stat -c '%n %s %Y %a' {} + | sort)"

echo "package: $pass passed, $fail failed"
[ "$fail" = 0 ]

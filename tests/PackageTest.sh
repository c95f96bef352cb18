#!/usr/bin/env bash
# The Debian package: built with cpack from a finished build tree (argument 1), then its file
# list, unit and conffiles are compared, its programs run from an extracted scratch root, and
# its postinst runs against stub commands that record what it would change on the system.
set -euo pipefail
build=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cpack -G DEB -B "$scratch/out" --config "$build/CPackConfig.cmake" >"$scratch/cpack.log" 2>&1 ||
  { cat "$scratch/cpack.log" >&2; fail "cpack -G DEB"; }
deb=("$scratch"/out/norvane_*_*.deb)
[ -f "${deb[0]}" ] || fail "no norvane_*.deb in $(ls "$scratch/out")"

files=$(dpkg-deb -c "${deb[0]}" | awk '$1 !~ /^d/ {print $1, $2, $6}')
expected="-rw-r----- root/root ./etc/norvane/Norvane.cf
-rwxr-xr-x root/root ./usr/bin/norvane
-rw-r--r-- root/root ./usr/lib/systemd/system/norvaned.service
-rwxr-xr-x root/root ./usr/sbin/norvaned
-rw-r--r-- root/root ./usr/share/bash-completion/completions/norvane
-rw-r--r-- root/root ./usr/share/man/man1/norvane.1
-rw-r--r-- root/root ./usr/share/man/man5/Norvane.cf.5
-rw-r--r-- root/root ./usr/share/man/man8/norvaned.8"
[ "$files" = "$expected" ] || fail "file list differs:"$'\n'"$files"

root="$scratch/root"
dpkg-deb -x "${deb[0]}" "$root"
dpkg-deb -e "${deb[0]}" "$scratch/control"
[ "$(cat "$scratch/control/conffiles")" = /etc/norvane/Norvane.cf ] || fail "conffiles"
grep -q '^Depends: adduser,' "$scratch/control/control" || fail "no Depends on adduser"
unit="$root/usr/lib/systemd/system/norvaned.service"
for line in 'User=norvane' 'SupplementaryGroups=adm' 'WorkingDirectory=/var/lib/norvane' \
  'ExecStart=@/usr/sbin/norvaned norvaned --foreground -c /etc/norvane/Norvane.cf'; do
  grep -qxF "$line" "$unit" || fail "the unit lacks $line"
done

# The programs, and the daemon started as the unit starts it: with argv[0] "norvaned", in its
# working directory, on the shipped configuration (--check: it reads and checks, starts nothing).
[ "$("$root/usr/bin/norvane" --version)" = "norvane 0.1.0" ] || fail "norvane --version"
mkdir "$scratch/state"
check=$(cd "$scratch/state" && bash -c 'exec -a norvaned "$0" --check -c "$1"' \
  "$root/usr/sbin/norvaned" "$root/etc/norvane/Norvane.cf" 2>&1) || fail "norvaned --check: $check"
case "$check" in *"configuration OK"*) ;; *) fail "norvaned --check said: $check" ;; esac
grep -q -- '--foreground' <("$root/usr/sbin/norvaned" --help) || fail "norvaned has no --foreground"

# postinst on a first installation, with every command it calls replaced by a recorder.
mkdir "$scratch/bin"
for command in adduser getent chgrp chmod systemctl; do
  printf '#!/bin/sh\necho "%s $*" >>"%s"\n[ %s != getent ]\n' "$command" "$scratch/calls" \
    "$command" >"$scratch/bin/$command"
  chmod +x "$scratch/bin/$command"
done
PATH="$scratch/bin:/usr/bin:/bin" sh "$scratch/control/postinst" configure "" >"$scratch/said"
calls=$(grep -v '^systemctl ' "$scratch/calls")
[ "$calls" = "getent passwd norvane
adduser --system --group --home /var/lib/norvane --no-create-home --quiet norvane
adduser --quiet norvane adm
chgrp norvane /etc/norvane/Norvane.cf
chmod 0640 /etc/norvane/Norvane.cf" ] || fail "postinst called:"$'\n'"$calls"
grep -q 'systemctl enable --now norvaned' "$scratch/said" || fail "postinst said: $(cat "$scratch/said")"
for script in prerm postrm; do sh -n "$scratch/control/$script" || fail "$script syntax"; done
echo "package ${deb[0]##*/}: file list, unit, programs and postinst as expected"

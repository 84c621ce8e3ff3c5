#!/bin/sh
# The Debian package of a build tree: made with CPack, then inspected as an administrator would
# meet it. It must hold exactly what the install step installs, at the Debian places; its
# maintainer scripts must be well-formed, enable the sockets, skip the service manager quietly
# when it does not run, and on purge remove the daemon's rights and settings but nothing else.
# The scripts run in a private mount namespace whose /etc, /run and /var/lib are throwaway copies.
#
#   check-package.sh BUILD_DIR WORK_DIR      (as root)
set -eu

build=$1
work=$2
fail() { echo "check-package: $*" >&2; exit 1; }

rm -rf "$work"
mkdir -p "$work"
(cd "$build" && cpack -G DEB -B "$work/out" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; fail "cpack failed"; }
set -- "$work"/out/securityagent_*.deb
[ -f "$1" ] || fail "no package made"
deb=$1

# Control fields.
dpkg-deb -f "$deb" Package | grep -qx securityagent || fail "package name"
depends=$(dpkg-deb -f "$deb" Depends)
for needed in libpam-runtime libc6 libstdc++6; do
  echo "$depends" | grep -q "$needed" || fail "Depends lacks $needed: $depends"
done

# Contents: exactly the files of the install step (DESTDIR install with the same prefix).
DESTDIR="$work/staged" cmake --install "$build" --prefix /usr >/dev/null
(cd "$work/staged" && find . ! -type d | sort) >"$work/installed.txt"
dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print $6 }' | sort >"$work/packaged.txt"
# (Manual pages are packaged compressed.)
sed 's|^\(\./usr/share/man/.*\)\.gz$|\1|' "$work/packaged.txt" | sort |
  diff "$work/installed.txt" - || fail "the package differs from the install step"
if grep '^\./usr/share/man/' "$work/packaged.txt" | grep -qv '\.gz$'; then
  fail "a manual page is not compressed"
fi
for path in ./usr/libexec/com.tavorin.system.securityagent3 ./usr/libexec/com.tavorin.system.authority \
  ./usr/bin/securityagentctl ./usr/sbin/authorityctl ./etc/pam.d/com.tavorin.system.authority \
  ./usr/include/securityagent.h ./usr/include/securityagent.hpp; do
  grep -qx "$path" "$work/packaged.txt" || fail "missing $path"
done
for pattern in 'lib/systemd/system/com.tavorin.system.securityagent3.socket$' \
  'lib/systemd/system/com.tavorin.system.authority.socket$' '/libsecurityagent\.so\.1$' \
  '/pkgconfig/securityagent\.pc$' '/cmake/SecurityAgent/SecurityAgentConfig\.cmake$'; do
  grep -q "$pattern" "$work/packaged.txt" || fail "missing $pattern"
done

# The unpacked tree works: the library's name, its exports, a client that starts.
dpkg -x "$deb" "$work/root"
library=$(find "$work/root" -name 'libsecurityagent.so.1' | head -n 1)
[ -n "$library" ] || fail "no library"
readelf -d "$library" | grep -q 'SONAME.*libsecurityagent\.so\.1' || fail "SONAME"
if nm -D --defined-only "$library" | awk '{ print $3 }' | grep -v '^sa_' | grep -v '^SECURITYAGENT_1$' | grep -q .; then
  fail "symbols besides the C interface are exported"
fi
"$work/root/usr/bin/securityagentctl" --list >/dev/null || fail "the packaged client does not run"
grep -qx 'prefix=/usr' "$(find "$work/root" -name securityagent.pc)" || fail "pkg-config prefix"

# Maintainer scripts.
dpkg-deb -e "$deb" "$work/control"
for script in postinst prerm postrm; do
  [ -x "$work/control/$script" ] || fail "$script missing or not executable"
  sh -n "$work/control/$script" || fail "$script is not valid shell"
done
grep -qx /etc/pam.d/com.tavorin.system.authority "$work/control/conffiles" || fail "conffiles"

# Run them without a service manager, against throwaway /etc, /run and /var/lib.
cat >"$work/run-scripts.sh" <<'SCRIPT'
set -eu
control=$1 scratch=$2 root=$3
mount -t tmpfs none "$scratch"
mkdir -p "$scratch/upper" "$scratch/work" "$scratch/lib"
mount -t overlay overlay -o "lowerdir=/etc,upperdir=$scratch/upper,workdir=$scratch/work" /etc
mount -t tmpfs none /run
mount --bind "$scratch/lib" /var/lib
rights=/etc/com.tavorin.system.authority/rights.d
mkdir -p "$rights" /var/lib/com.tavorin.system.securityagent3
echo daemon >"$rights/com.tavorin.get.version.plist"
echo other >"$rights/org.example.other.plist"
echo setting >/var/lib/com.tavorin.system.securityagent3/PowerManagement.plist
# The units as if installed (the service manager also reads /etc/systemd/system).
mkdir -p /etc/systemd/system
find "$root" -path '*/systemd/system/com.tavorin.*' -exec cp {} /etc/systemd/system/ \;

# dpkg's environment for the scripts, which deb-systemd-helper insists on.
export DPKG_MAINTSCRIPT_PACKAGE=securityagent
run() { DPKG_MAINTSCRIPT_NAME=$1 "$control/$@"; }
run postinst configure
if command -v deb-systemd-helper >/dev/null 2>&1; then
  [ -L /etc/systemd/system/sockets.target.wants/com.tavorin.system.securityagent3.socket ] ||
    { echo "postinst did not enable the daemon's socket" >&2; exit 1; }
fi
run prerm remove
run postrm remove
[ -f "$rights/com.tavorin.get.version.plist" ] || { echo "remove took the rights" >&2; exit 1; }
run postrm purge
[ ! -e "$rights/com.tavorin.get.version.plist" ] || { echo "purge kept a daemon right" >&2; exit 1; }
[ -f "$rights/org.example.other.plist" ] || { echo "purge took another right" >&2; exit 1; }
[ ! -e /var/lib/com.tavorin.system.securityagent3 ] || { echo "purge kept the settings" >&2; exit 1; }
SCRIPT
mkdir -p "$work/scratch"
unshare --mount --propagation private sh "$work/run-scripts.sh" "$work/control" "$work/scratch" "$work/root" ||
  fail "the maintainer scripts misbehave"

# lintian, where installed: its findings are shown, not judged here.
if command -v lintian >/dev/null 2>&1; then
  lintian --tag-display-limit 0 "$deb" >"$work/lintian.txt" 2>&1 || true
  echo "lintian:"
  cat "$work/lintian.txt"
fi
echo "package $(basename "$deb") checked"

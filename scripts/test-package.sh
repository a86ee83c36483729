#!/usr/bin/env bash
# Builds the Debian package from a build tree, installs it, checks what it put in place,
# removes it (only the configuration may stay) and purges it. The service is never
# started. Whatever happens, the machine is left without the package.
# Usage (root): test-package.sh [BUILD_DIR]
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$top/build}" && pwd)
pkg=dhcp-relay-agent
conffile=/etc/dhcp-relay-agent/dhcp-relay.yaml
unit=/usr/lib/systemd/system/dhcp-relay-agent.service

fail() {
   echo "test-package: $*" >&2
   exit 1
}

[ "$(id -u)" -eq 0 ] || fail "run as root (it installs the package)"
# Never replace or remove an install that was here before: that is the operator's.
if dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -qv 'not-installed'; then
   fail "$pkg is already known to dpkg; remove it first"
fi
for p in /usr/bin/dhcp-relay-agent /usr/bin/dhcp-relay-ctl /usr/bin/dhcp-relay-trace \
   /etc/dhcp-relay-agent "$unit"; do
   [ ! -e "$p" ] || fail "$p exists outside the package; move it away first"
done

cleanup() {
   if dpkg-query -W "$pkg" >/dev/null 2>&1; then
      dpkg --purge "$pkg" >/dev/null || echo "test-package: purging $pkg failed" >&2
   fi
}
trap cleanup EXIT

echo "-- cpack"
out=$(cd "$build" && cpack -G DEB 2>&1) || fail "cpack failed: $out"
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
deb="$build/${pkg}_${version}_$(dpkg --print-architecture).deb"
[ -f "$deb" ] || fail "cpack made no $deb"

echo "-- dpkg -i"
dpkg -i "$deb" >/dev/null
installed=$(dpkg -L "$pkg")
for p in /usr/bin/dhcp-relay-agent /usr/bin/dhcp-relay-ctl /usr/bin/dhcp-relay-trace "$unit" \
   "$conffile" /usr/share/man/man8/dhcp-relay-agent.8.gz \
   /usr/share/man/man8/dhcp-relay-ctl.8.gz /usr/share/man/man1/dhcp-relay-trace.1.gz; do
   [ -f "$p" ] || fail "$p is not installed"
   grep -qx "$p" <<<"$installed" || fail "$p is not listed as the package's"
done
[ -d /var/log/dhcp-relay-agent ] || fail "no /var/log/dhcp-relay-agent"
dpkg-query -W -f='${Conffiles}\n' "$pkg" | grep -q " $conffile " || fail "$conffile is no conffile"
for prog in dhcp-relay-agent dhcp-relay-ctl dhcp-relay-trace; do
   got=$("/usr/bin/$prog" --version)
   [ "$got" = "$prog $version" ] || fail "/usr/bin/$prog --version printed '$got'"
done
for page in /usr/share/man/man8/dhcp-relay-{agent,ctl}.8.gz /usr/share/man/man1/dhcp-relay-trace.1.gz; do
   zcat "$page" | grep -q '^\.TH' || fail "$page is no man page"
done
# The unit starts with the example as it is shipped, so the example must pass the check.
/usr/bin/dhcp-relay-agent --config "$conffile" --check >/dev/null ||
   fail "the shipped configuration does not pass --check"
# verify warns on unknown keys and bad values without failing: any output is a fault.
out=$(systemd-analyze verify "$unit" 2>&1) || fail "systemd-analyze verify failed: $out"
[ -z "$out" ] || fail "systemd-analyze verify: $out"
if [ -d /run/systemd/system ] && systemctl is-active --quiet "$pkg"; then
   fail "installing the package started the service"
fi

echo "-- dpkg -r"
dpkg -r "$pkg" >/dev/null
dpkg-query -W -f='${Status}' "$pkg" | grep -q 'config-files' || fail "$pkg not in config-files state"
while IFS= read -r p; do
   if [ "$p" = "$conffile" ]; then
      [ -f "$p" ] || fail "dpkg -r removed the configuration"
   elif [ -e "$p" ] && [ ! -d "$p" ]; then
      fail "dpkg -r left $p"
   fi
done <<<"$installed"
[ ! -e /var/log/dhcp-relay-agent ] || fail "dpkg -r left /var/log/dhcp-relay-agent"

echo "-- dpkg --purge"
dpkg --purge "$pkg" >/dev/null
! dpkg-query -W "$pkg" >/dev/null 2>&1 || fail "$pkg still known to dpkg after purge"
[ ! -e /etc/dhcp-relay-agent ] || fail "purge left /etc/dhcp-relay-agent"
echo "package: ok"

#!/usr/bin/env bash
# Installs everything needed to build dhcp-relay-agent and run its tests on Debian.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
   echo "install-deps.sh: run as root (it uses apt-get)" >&2
   exit 1
fi

packages=(
   # build
   cmake ninja-build g++ ccache pkg-config clang-format
   libyaml-dev libfmt-dev nlohmann-json3-dev libcli11-dev libmnl-dev libc-ares-dev
   libgtest-dev libgmock-dev libbenchmark-dev libsystemd-dev
   # man pages, the Debian package and its unit check (scripts/test-package.sh)
   scdoc dpkg-dev systemd
   # tests and the lab
   python3 python3-pytest iproute2 procps ethtool
   # real DHCP peers and packet tools for the namespace lab (tools/lab/lab.py)
   isc-dhcp-server isc-dhcp-client python3-scapy tcpdump
   # a DHCPv6 relay that is no part of this project: the lab's downstream relay
   isc-dhcp-relay
   # a DNS server for the host-name resolution tests (the -base package has no service)
   dnsmasq-base
   # the metrics test's scraper (tests/e2e/test_metrics.py runs its own, in a namespace)
   prometheus
)

missing=()
for p in "${packages[@]}"; do
   dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
   echo "installing: ${missing[*]}"
   export DEBIAN_FRONTEND=noninteractive
   # The DHCP server, DHCP relay and Prometheus packages would start their services on the
   # host; the tests run their own inside network namespaces, so no service starts during
   # the install.
   if [ ! -e /usr/sbin/policy-rc.d ]; then
      printf '#!/bin/sh\nexit 101\n' >/usr/sbin/policy-rc.d
      chmod +x /usr/sbin/policy-rc.d
      trap 'rm -f /usr/sbin/policy-rc.d' EXIT
   fi
   apt-get update -qq
   apt-get install -y -qq --no-install-recommends "${missing[@]}"
   # Nor at the next boot: a Prometheus or dhcrelay installed here is only the tests' program.
   for service in prometheus isc-dhcp-relay; do
      if [[ " ${missing[*]} " == *" $service "* ]]; then
         systemctl disable "$service.service" >/dev/null 2>&1 || true
         update-rc.d "$service" disable >/dev/null 2>&1 || true
      fi
   done
fi

#!/bin/sh
# check_unit.sh UNIT: whether the service comes back, within limits, with as little as it needs. One line for each
# fault.
set -eu
unit=$1
status=0

fault() {
  echo "$unit: $1" >&2
  status=1
}

# setting SECTION NAME: its value, the last one counts.
setting() {
  awk -F= -v section="[$1]" -v name="$2" '
    /^\[/ { within = $0 == section }
    within && $1 == name { value = substr($0, length(name) + 2) }
    END { print value }' "$unit"
}

# expect SECTION NAME VALUE
expect() {
  found=$(setting "$1" "$2")
  [ "$found" = "$3" ] || fault "$2 is '$found', not '$3'"
}

# number SECTION NAME PATTERN: a limit that is one, so not empty, 0 or infinity.
number() {
  setting "$1" "$2" | grep -qE "^[1-9][0-9]*($3)\$" || fault "$2 is '$(setting "$1" "$2")', no limit"
}

expect Service Restart always
number Service RestartSec 's|min'
number Service MemoryMax 'M|G'
number Unit StartLimitIntervalSec 's|min'
number Unit StartLimitBurst ''
# In a shorter interval the limit would never be met: so many starts take longer.
seconds() {
  awk -v time="$(setting "$1" "$2")" 'BEGIN { print time * (time ~ /min$/ ? 60 : 1) }'
}
needed=$(($(seconds Service RestartSec) * $(seconds Unit StartLimitBurst)))
[ "$(seconds Unit StartLimitIntervalSec)" -gt $needed ] || fault "the start limit can never be met"

for name in DynamicUser ProtectHome PrivateTmp PrivateDevices ProtectClock ProtectControlGroups ProtectHostname \
  ProtectKernelLogs ProtectKernelModules ProtectKernelTunables NoNewPrivileges LockPersonality RestrictNamespaces \
  RestrictRealtime RestrictSUIDSGID MemoryDenyWriteExecute; do
  expect Service $name yes
done
expect Service ProtectSystem strict
expect Service CapabilityBoundingSet ''
grep -q '^CapabilityBoundingSet=$' "$unit" || fault "CapabilityBoundingSet is not there"
expect Service SystemCallArchitectures native
expect Service RestrictAddressFamilies 'AF_UNIX AF_INET AF_INET6 AF_NETLINK'

# What systemd itself makes of it, where there is one; of a copy whose program exists here.
if command -v systemd-analyze >/dev/null; then
  copy=$(mktemp -d)
  sed 's|^ExecStart=[^ ]*|ExecStart=/bin/true|' "$unit" >"$copy/ue-proxy.service"
  said=$(systemd-analyze verify "$copy/ue-proxy.service" 2>&1) || true
  rm -rf "$copy"
  [ -z "$said" ] || fault "systemd says: $said"
fi
exit $status

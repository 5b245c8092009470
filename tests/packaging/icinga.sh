#!/usr/bin/env bash
# icinga.sh EXAMPLES: Icinga 2 accepts the files shipped for it.
set -euo pipefail
examples=$1
command -v icinga2 >/dev/null || { echo 'skipped: icinga2 is missing (package icinga2-bin)'; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

cat >"$dir/icinga2.conf" <<END
include <itl>
include <plugins>
const PluginDir = "/usr/lib/nagios/plugins"
include "$examples/icinga2/*.conf"
END
icinga2 daemon -C -c "$dir/icinga2.conf" -D "DataDir=$dir" -D "LogDir=$dir" -D "CacheDir=$dir" -D "InitRunDir=$dir" \
    -D "Configuration.RunAsUser=$(id -un)" -D "Configuration.RunAsGroup=$(id -gn)"

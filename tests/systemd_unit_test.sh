#!/usr/bin/env bash
# The sidecar's systemd unit passes `systemd-analyze verify` without a single complaint, as an
# instance beside a service unit, with ExecStart pointing at the korvel just built.
# Usage: systemd_unit_test.sh SOURCE_DIR KORVEL
set -euo pipefail
source_dir=$1
korvel=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

sed "s|/usr/local/bin/korvel|$korvel|" "$source_dir/examples/systemd/korvel-register@.service" \
  > "$work/korvel-register@.service"
printf '[Unit]\nDescription=a service\n[Service]\nExecStart=/bin/sleep infinity\n' > "$work/web.service"
cd "$work"
if ! complaints=$(systemd-analyze verify --man=no "$work/korvel-register@web.service" 2>&1); then
  echo "systemd-analyze verify failed:"; echo "$complaints"; exit 1
fi
if [ -n "$complaints" ]; then
  echo "systemd-analyze verify complained:"; echo "$complaints"; exit 1
fi
echo "korvel-register@.service verified"

#!/usr/bin/env bash
# Sets up the machine, builds, and starts the daemon in the foreground under a
# private root (./run-root), on the default ports. Stop it with Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
# The compiler cache lives outside the checkout, so fresh clones (CI) reuse it.
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
cmake --preset default >/dev/null
cmake --build --preset default --target kelvoraecommd
export ECOMM_ROOT="${ECOMM_ROOT:-$PWD/run-root}"
mkdir -p "$ECOMM_ROOT/etc/kelvora" "$ECOMM_ROOT/var/opt/kelvora" "$ECOMM_ROOT/var/run" "$ECOMM_ROOT/tmp"
[ -f "$ECOMM_ROOT/etc/kelvora/ecomm.conf" ] || printf 'LogLevel LOG_INFO\n' > "$ECOMM_ROOT/etc/kelvora/ecomm.conf"
echo "kelvoraecommd: root $ECOMM_ROOT; Ctrl-C stops it"
exec build/default/kelvoraecommd "$@"

#!/usr/bin/env bash
# Sets up the machine, builds, and starts the daemon in the foreground under a
# private root (./run-root), on the default ports. Stop it with Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/prepare.sh kelvoraecommd
echo "kelvoraecommd: root $ECOMM_ROOT; Ctrl-C stops it"
exec build/default/kelvoraecommd "$@"

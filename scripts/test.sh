#!/usr/bin/env bash
# Sets up the machine, builds, and runs the whole test suite.
# Usage: scripts/test.sh [preset]   (default, debug, asan or tsan; default: default)
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
bash scripts/setup.sh
# The compiler cache lives outside the checkout, so fresh clones (CI) reuse it.
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset"

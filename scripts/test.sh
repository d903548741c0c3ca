#!/usr/bin/env bash
# Sets up the machine, builds, and runs the whole test suite.
# Usage: scripts/test.sh [preset]   (default, debug, asan or tsan; default: default)
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
bash scripts/setup.sh
export CCACHE_DIR="${CCACHE_DIR:-$PWD/.ccache}"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset"

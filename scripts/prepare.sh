# Sourced by the run and demo scripts: sets the machine up, builds the given targets
# with the default preset, and prepares the private root ($ECOMM_ROOT, by default
# ./run-root) with a small ecomm.conf. Expects to be sourced from the checkout's top.
bash scripts/setup.sh
# The compiler cache lives outside the checkout, so fresh clones (CI) reuse it.
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
cmake --preset default >/dev/null
cmake --build --preset default --target "$@"

export ECOMM_ROOT="${ECOMM_ROOT:-$PWD/run-root}"
mkdir -p "$ECOMM_ROOT/etc/kelvora" "$ECOMM_ROOT/var/opt/kelvora" "$ECOMM_ROOT/var/run" "$ECOMM_ROOT/tmp"
[ -f "$ECOMM_ROOT/etc/kelvora/ecomm.conf" ] || printf 'LogLevel LOG_INFO\n' > "$ECOMM_ROOT/etc/kelvora/ecomm.conf"

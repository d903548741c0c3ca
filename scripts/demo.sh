#!/usr/bin/env bash
# The daemon together with a stand-in for the main server, in ./run-root:
#   - builds kelvoraecommd and ecomm-sim (scripts/prepare.sh),
#   - starts the daemon on its default port 10003 and "ecomm-sim serve" as the main
#     server on its default port 10000,
#   - calls RPC 3600 on the daemon through "ecomm-sim call" and shows the answer,
#   - then keeps both running in the foreground; Ctrl-C stops both.
# Trust is set up both ways by the programs themselves: the daemon enters a client
# certificate it makes in the main server's trust file
# (run-root/etc/kelvora/server/trusted_certificates.cfg), which "ecomm-sim serve"
# reads; "ecomm-sim call" enters its own certificate in the daemon's trust file
# (run-root/etc/kelvora/ecomm/trusted_certificates.cfg) before it connects.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/prepare.sh kelvoraecommd ecomm-sim

daemon=build/default/kelvoraecommd
sim=build/default/tools/ecomm-sim/ecomm-sim
daemon_pid=""
sim_pid=""
sim_output="$(mktemp)"

stop_all() {
  trap - INT TERM EXIT
  echo
  for pid in $daemon_pid $sim_pid; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in $daemon_pid $sim_pid; do wait "$pid" 2>/dev/null || true; done
  rm -f "$sim_output"
  echo "demo: daemon and ecomm-sim stopped"
}
trap stop_all EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# True while something listens on TCP port $1 (IPv4), from /proc/net/tcp.
listening() {
  awk -v port="$(printf '%04X' "$1")" \
    'NR > 1 && $4 == "0A" { split($2, local, ":"); if (local[2] == port) found = 1 } END { exit !found }' \
    /proc/net/tcp
}

# Waits up to $2 tenths of a second for the command $1 to hold while process $3 lives.
wait_until() {
  local tries=0
  until eval "$1"; do
    kill -0 "$3" 2>/dev/null || return 1
    tries=$((tries + 1))
    [ "$tries" -le "$2" ] || return 1
    sleep 0.1
  done
}

echo "demo: root $ECOMM_ROOT"
"$daemon" &
daemon_pid=$!
# The first start makes two RSA keys; a taken port ends the daemon after about 5 s.
if ! wait_until "listening 10003" 300 "$daemon_pid"; then
  echo "demo: the daemon does not listen on port 10003 (is the port taken?)" >&2
  exit 1
fi
echo "demo: kelvoraecommd (pid $daemon_pid) listens on port 10003"

"$sim" serve > >(tee "$sim_output" | sed -u 's/^/ecomm-sim serve: /') 2>&1 &
sim_pid=$!
if ! wait_until "grep -q 'listening on port' '$sim_output'" 300 "$sim_pid"; then
  echo "demo: ecomm-sim serve did not start (is port 10000 taken?)" >&2
  exit 1
fi

echo "demo: the daemon's client certificate in the main server's trust file:"
sed '/^$/d; s/^/  /' "$ECOMM_ROOT/etc/kelvora/server/trusted_certificates.cfg"

echo "demo: ecomm-sim call 3600 --field target=1 --field user=demo --field method=GET --field path=v1/items"
set +e
"$sim" call 3600 --field target=1 --field user=demo --field method=GET --field path=v1/items 2>&1 | sed 's/^/  /'
status=${PIPESTATUS[0]}
set -e
echo "demo: the call ended with status $status (1: the daemon answered with an error)"
echo "demo: the daemon's trust file now lists:"
sed '/^$/d; s/^/  /' "$ECOMM_ROOT/etc/kelvora/ecomm/trusted_certificates.cfg"

echo "demo: both keep running; call again from another shell with"
echo "  ECOMM_ROOT=$ECOMM_ROOT $sim call 3600 --field target=1 --field user=demo --field method=GET"
echo "demo: Ctrl-C stops both"
stopping=0
trap 'stopping=1' INT TERM
# Ctrl-C reaches the daemon and the simulator as well; each stops on it.
while [ "$stopping" = 0 ] && kill -0 "$daemon_pid" 2>/dev/null && kill -0 "$sim_pid" 2>/dev/null; do
  wait -n "$daemon_pid" "$sim_pid" || true
done
[ "$stopping" = 1 ] && exit 0
kill -0 "$daemon_pid" 2>/dev/null || echo "demo: the daemon ended by itself" >&2
kill -0 "$sim_pid" 2>/dev/null || echo "demo: ecomm-sim serve ended by itself" >&2
exit 1

#!/usr/bin/env bash
# Watch it work: one daemon, one server that it starts on demand, one client, all on loopback and without privileges.
#
# usage: samples/demo.sh BUILD_FOLDER
set -euo pipefail

build=$(cd "$1" && pwd)
PATH=$build/server:$build/cli:$build/samples:$PATH
root=$(mktemp -d "${TMPDIR:-/tmp}/velia-demo-XXXXXX")
export VELIA_ROOT=$root VELIA_HOSTNAME=demo-host
daemon_pid=

step() { printf '\n\033[1m%s\033[0m\n' "$*"; }
run() {
    printf '  $ %s\n' "$*"
    "$@" 2>&1 | sed 's/^/    /'
}

end() {
    [ -z "$daemon_pid" ] || kill "$daemon_pid" 2>/dev/null || true
    [ -z "$daemon_pid" ] || wait "$daemon_pid" 2>/dev/null || true
    rm -rf "$root"
}
trap end EXIT

free_port() { # a port that nobody listens on at this moment
    local port
    for port in $(shuf -i 20000-32000 -n 50); do
        ss -Hltun "sport = :$port" 2>/dev/null | grep -q . || { echo "$port"; return; }
    done
    echo "no free port" >&2
    return 1
}

step "1. A site: its root directory, its hosts, its services, and one server that may be started"
mkdir -p "$root"/{config,host/config,host/priv,host/data,log}
port=$(free_port)
echo "rvzd $port" >"$root/config/services.conf"
echo "demo-host 127.0.0.1 ::1" >"$root/config/hosts.conf"
echo "udp,tcp shared 390600 1 max=1,idle=60 - - $(command -v velia-sample-server)" >"$root/host/config/rvzd_server.conf"
for file in config/hosts.conf config/services.conf host/config/rvzd_server.conf; do
    printf '  %-30s %s\n' "$file" "$(sed "s#$build/##" "$root/$file")"
done

step "2. The rendezvous daemon comes up"
mkfifo "$root/ready"
rvzd_server -f "$root/host/config/rvzd_server.conf" --foreground --ready-fd 9 9>"$root/ready" >"$root/daemon.log" 2>&1 &
daemon_pid=$!
read -r -t 10 ready <"$root/ready" || { echo "the daemon did not come up:"; cat "$root/daemon.log"; exit 1; }
echo "  it says $ready on its ready descriptor and listens on port $port"

step "3. A client gets a handle and learns the peer's protocol version, over UDP and over TCP"
run veliactl contact demo-host
run veliactl contact --transport tcp --no-headers demo-host

step "4. It asks for a server that is not running: the daemon starts it, and it takes over its sockets and registers"
run pgrep -fc "^$build/samples/velia-sample-server" || true
run veliactl server find demo-host --prog 390600
run pgrep -fc "^$build/samples/velia-sample-server"

step "5. It opens a connection to the server and calls it, over UDP and over TCP"
run veliactl server connect demo-host --prog 390600
run veliactl server connect demo-host --prog 390600 --proto tcp --output json

step "6. What the daemon says of all that"
sed 's/^/    /' "$root/daemon.log"

step "7. The daemon ends, and its server with it, through the lifeline"
kill "$daemon_pid"
wait "$daemon_pid" || { echo "the daemon failed"; exit 1; }
daemon_pid=
for _ in $(seq 100); do
    pgrep -f "^$build/samples/velia-sample-server" >/dev/null || break
    sleep 0.05
done
if pgrep -f "^$build/samples/velia-sample-server" >/dev/null; then
    echo "  the server is still there"
    exit 1
fi
echo "  both are gone"
step "Done: handle, look-up, start on demand, connection and answer, all for real."

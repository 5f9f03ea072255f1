#!/usr/bin/env bash
# Watch it work on loopback and without privileges: a daemon, a server that it starts on demand and a client; then a
# site of three hosts with a registry.
#
# usage: samples/demo.sh BUILD_FOLDER
set -euo pipefail

build=$(cd "$1" && pwd)
PATH=$build/server:$build/cli:$build/samples:$PATH
root=$(mktemp -d "${TMPDIR:-/tmp}/velia-demo-XXXXXX")
export VELIA_ROOT=$root VELIA_HOSTNAME=demo-host
daemon_pid=
daemon_pids=()

step() { printf '\n\033[1m%s\033[0m\n' "$*"; }
run() {
    printf '  $ %s\n' "$*"
    "$@" 2>&1 | sed 's/^/    /'
}

end() {
    [ -z "$daemon_pid" ] || kill "$daemon_pid" 2>/dev/null || true
    [ -z "$daemon_pid" ] || wait "$daemon_pid" 2>/dev/null || true
    for pid in ${daemon_pids[@]+"${daemon_pids[@]}"}; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
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
echo "task 1 shell /bin/sh" >>"$root/host/config/rvzd_server.conf"
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
run veliactl server list demo-host

step "6. It runs jobs: one now, whose output and status come back, one that fails, and one each night"
run veliactl job create demo-host hello --task shell --days 1 --first 02:30 -- -c 'echo hello from job $$'
run veliactl job run demo-host hello --wait
run veliactl job create demo-host fails --task shell --days 1 --first 02:30 -- -c 'echo no such thing >&2; exit 3'
run veliactl job run demo-host fails --wait || echo "    (exit status $?)"
run veliactl job list demo-host
run veliactl job next demo-host hello 2

step "7. What the daemon says of all that"
sed 's/^/    /' "$root/daemon.log"

step "8. The daemon ends, and its server with it, through the lifeline"
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
unset VELIA_ROOT VELIA_HOSTNAME

step "9. A site of three hosts on loopback: a master registry, its standby, and a client"
make_host() { # name, role or nothing
    mkdir -p "$root/$1"/host/{config,priv,data} "$root/$1/log"
    ln -s "$root/config" "$root/$1/config"
    printf 'master\nstandby\n' >"$root/$1/host/config/rgy_hosts.conf"
    printf 'east\nwest\n' >"$root/$1/host/config/rgy_region.conf"
    # The hosts of the site trust each other with its registry.
    printf 'option registry-copy 1\naccess 127.0.0.0/8 read,register,write\n' >"$root/$1/host/config/rvzd_server.conf"
    [ -z "${2:-}" ] || printf '%s' "$2" >"$root/$1/host/config/rgy_svr.conf"
}
printf 'master 127.0.0.2\nstandby 127.0.0.3\nclient 127.0.0.4\nother 127.0.0.5\n' >"$root/config/hosts.conf"
make_host master master
make_host standby standby
make_host client
make_host other
on() { # host, command: as a process of that host
    local host=$1
    shift
    printf '  %s$ %s\n' "$host" "$*"
    VELIA_ROOT=$root/$host VELIA_HOSTNAME=$host TZ=Europe/Berlin "$@" 2>&1 | sed 's/^/    /'
}
start_daemon() { # host, address, descriptor
    mkfifo "$root/$1/ready"
    VELIA_ROOT=$root/$1 VELIA_HOSTNAME=$1 TZ=Europe/Berlin rvzd_server --foreground --listen "$2" --ready-fd 9 \
        9>"$root/$1/ready" >"$root/$1/daemon.log" 2>&1 &
    daemon_pids+=($!)
    read -r -t 10 ready <"$root/$1/ready" || { echo "the daemon of $1 did not come up:"; cat "$root/$1/daemon.log"; exit 1; }
    echo "  the daemon of $1 listens on $2"
}
start_daemon master 127.0.0.2
start_daemon standby 127.0.0.3
on master veliactl registry role
on client veliactl registry hosts
on client veliactl registry region

step "10. Regions, tags and an object are added; what stands there already is refused"
on client veliactl registry add regions name=east "title=The eastern lab" --dry-run
on client veliactl registry add regions name=east "title=The eastern lab" --no-headers
for name in src doc tools; do
    on client veliactl registry add vault_tag "tag=/vaults/$name" region=east hostname=client attributes=poolmap=/x,ro --no-headers
done
on client veliactl registry add vault_object vault_replica=0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f hostname=client --no-headers
on client veliactl registry add regions name=east --no-headers || true

step "11. They are found by string, uuid, attribute and pattern, and listed two at a time through a cursor"
on client veliactl registry find vault_tag --string tag=/vaults/doc
on client veliactl registry find vault_object --uuid vault_replica=0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f --no-headers
on client veliactl registry find vault_tag --attr attributes:poolmap=/x --no-headers
on client veliactl registry find vault_tag --pattern '/vaults/[st]*' --output json
on client veliactl registry list vault_tag --batch 2 --no-headers

step "12. The read cache answers the same question from memory"
on client veliactl registry stats regions --string name=east --times 1000

step "13. One client changes a record, and the other sees it"
on other veliactl registry remove vault_tag --string tag=/vaults/doc
on other veliactl registry add vault_tag tag=/vaults/doc region=east hostname=other --no-headers
on client veliactl registry find vault_tag --string tag=/vaults/doc --no-headers
on client veliactl registry dbs

step "14. What the master tells of itself and of its clients"
on client veliactl host info master --output json
on client veliactl host tz master 2026
on client veliactl clients list master
sed -n '1,12p' "$root/master/daemon.log" | sed 's/^/    /'

step "15. The master is killed and comes back: nothing that was acknowledged is lost"
{
    kill -9 "${daemon_pids[0]}"
    wait "${daemon_pids[0]}"
} 2>/dev/null || true
rm "$root/master/ready"
start_daemon master 127.0.0.2
on client veliactl registry list vault_tag --no-headers

step "16. Views and vaults are registered, each once; a pool map is explained"
view=7c1d0f3e-2b4a-4f6d-8e9c-0a1b2c3d4e5f
on client veliactl view add $view --hostname client --path /views/me.vws --owner demo/me --attribute snapshot
on client veliactl view add $view --hostname client --path /views/me.vws || true
on client veliactl vault add 1f2e3d4c-5b6a-4978-8695-a4b3c2d1e0f9 --hostname build7 --path /vaults/src.vbs \
    --family 99887766-5544-4332-a110-ffeeddccbbaa --no-headers
on client veliactl view list --no-headers
on client veliactl vault list --no-headers
on client veliactl poolmap explain "/vaults/=/net/build7/vaults/|/old/=/vaults/" /vaults/src.vbs/pool

step "17. The standby has been copying all the while"
for _ in $(seq 100); do
    VELIA_ROOT=$root/client VELIA_HOSTNAME=client veliactl view list --host standby --no-headers 2>/dev/null |
        grep -q $view && break
    sleep 0.1
done
on standby veliactl registry role --no-headers
on client veliactl view list --host standby --no-headers

step "18. The master dies for good and the standby is promoted, while a client goes on reading from it"
read_on() { # until it is told to stop, counts good and failed reads
    local good=0 failed=0
    while [ ! -e "$root/enough" ]; do
        if veliactl registry find regions --string name=east --host standby --no-headers 2>/dev/null | grep -q east; then
            good=$((good + 1))
        else
            failed=$((failed + 1))
        fi
    done
    echo "$good reads, $failed failed"
    [ $good -gt 0 ] && [ $failed -eq 0 ]
}
VELIA_ROOT=$root/client VELIA_HOSTNAME=client read_on >"$root/reads" &
reader=$!
{
    kill -9 "${daemon_pids[2]}"
    wait "${daemon_pids[2]}"
} 2>/dev/null || true
on standby veliactl registry promote
on client veliactl registry hosts --master standby --no-headers
on client veliactl registry add regions name=north --no-headers
on client veliactl registry list regions --no-headers
touch "$root/enough"
wait "$reader" || { echo "reading failed: $(cat "$root/reads")"; exit 1; }
echo "  the reader: $(cat "$root/reads")"

step "19. The new master can step down again"
on standby veliactl registry demote
on standby veliactl registry hosts --no-headers

step "Done: handle, look-up, start on demand, connection and answer; registry, cache, clients and a change of master."

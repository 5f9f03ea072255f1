#!/usr/bin/env bash
# usage: build_clients.sh BUILD_FOLDER SOURCE_FOLDER WORK_FOLDER SANITIZERS
set -euo pipefail
build=$1 source=$2 work=$3 sanitizers=$4
unset LD_LIBRARY_PATH

fail() { echo "$*"; exit 1; }

rm -rf "$work/package" "$work/moved" "$work/consumer" "$work/site"
mkdir -p "$work/consumer" "$work/host/config"
# As after a build of the tool alone.
rm -rf "$build/cli/completion"
cmake --install "$build" --prefix "$work/package" >/dev/null

for file in sbin/rvzd_server bin/veliactl libexec/velia-sample-server share/man/man1/veliactl.1 \
    share/man/man8/rvzd_server.8 share/man/man5/rvzd_server.conf.5 share/man/man5/velia-files.5 \
    lib/systemd/system/rvzd_server.service lib/sysusers.d/velia.conf etc/velia/rvzd_server.conf include/veliaxdr/rvzd_handle.h \
    share/veliaxdr/samples/echo_server.c \
    share/bash-completion/completions/veliactl share/zsh/site-functions/_veliactl \
    share/fish/vendor_completions.d/veliactl.fish; do
    [ -s "$work/package/$file" ] || fail "the package lacks $file"
done

echo "the unit names what is installed"
unit=$work/package/lib/systemd/system/rvzd_server.service
read -ra start <<<"$(sed -n 's/^ExecStart=//p' "$unit")"
[ "${start[0]}" = "$work/package/sbin/rvzd_server" ] || fail "it starts ${start[0]}"
[ "${start[-1]}" = "$work/package/etc/velia/rvzd_server.conf" ] || fail "its configuration is ${start[-1]}"
! grep -qE '@[A-Za-z_]+@' "$unit" || fail "the unit has holes: $(grep -E '@[A-Za-z_]+@' "$unit")"

echo "an administrator's configuration stays"
echo "option connections 64 # mine" >"$work/package/etc/velia/rvzd_server.conf"
cmake --install "$build" --prefix "$work/package" >/dev/null
grep -q mine "$work/package/etc/velia/rvzd_server.conf" || fail "it was written over"

expect_its_words() { # of a built client
    local words
    words=$(VELIA_ROOT="$work" "$1" 2>"$work/client.err")
    grep -q "no handle" <<<"$words" || { echo "unexpected: $words"; return 1; }
    grep -q "nobody.invalid" "$work/client.err" || { echo "the failure was not told"; return 1; }
}

flags=()
[ -z "$sanitizers" ] || flags=("-fsanitize=$sanitizers")
libs=$(dirname "$(find "$work/package" -name libveliaxdr.pc)")

echo "pkg-config"
read -ra words <<<"$(PKG_CONFIG_PATH=$libs pkg-config --cflags --libs libveliaxdr libveliasupport)"
compile() { # source, program
    cc -std=gnu11 -Wall -Wextra -Werror "${flags[@]}" "$1" -o "$2" "${words[@]}" "-Wl,-rpath,$(dirname "$libs")"
}
compile "$source/client.c" "$work/client"
expect_its_words "$work/client"
compile "$work/package/share/veliaxdr/samples/echo_server.c" "$work/echo-server"

echo "find_package"
cp "$source/client.c" "$work/consumer/"
cp "$source/CMakeLists.consumer.txt" "$work/consumer/CMakeLists.txt"
cmake -S "$work/consumer" -B "$work/consumer/build" -DCMAKE_PREFIX_PATH="$work/package" \
    -DCMAKE_C_FLAGS="${flags[*]}" >/dev/null
cmake --build "$work/consumer/build" >/dev/null
expect_its_words "$work/consumer/build/client"

echo "moved as a whole, its programs find their libraries and each other"
mv "$work/package" "$work/moved"
ln -s moved "$work/package" # for the two programs that were built against it
for program in sbin/rvzd_server bin/veliactl libexec/velia-sample-server; do
    [ "$(ldd "$work/moved/$program" | grep -c "$work/moved/.*libvelia")" -eq 2 ] || fail "$(ldd "$work/moved/$program")"
done
export VELIA_ROOT=$work/site VELIA_HOSTNAME=here
mkdir -p "$VELIA_ROOT"/{config,host/config,host/priv,log}
port=$(shuf -i 20000-32000 -n 1)
echo "rvzd $port" >"$VELIA_ROOT/config/services.conf"
echo "here 127.0.0.1" >"$VELIA_ROOT/config/hosts.conf"
{
    echo "udp,tcp shared 390600 1 - - - $work/echo-server"
    echo "udp,tcp shared 390601 1 - - - $work/moved/libexec/velia-sample-server --prog 390601"
} >>"$work/moved/etc/velia/rvzd_server.conf"
"$work/moved/sbin/rvzd_server" -f "$work/moved/etc/velia/rvzd_server.conf" --listen 127.0.0.1 --pid-file "$work/pid" \
    >"$work/daemon.out" 2>&1 || fail "the daemon did not come up: $(cat "$work/daemon.out" "$VELIA_ROOT"/log/*)"
trap 'kill "$(cat "$work/pid")"' EXIT
for server in "390600 udp" "390600 tcp" "390601 tcp"; do
    read -r number transport <<<"$server"
    "$work/moved/bin/veliactl" server connect here --prog "$number" --proto "$transport" ||
        fail "$number by $transport: $(cat "$VELIA_ROOT"/log/*)"
done

#!/usr/bin/env bash
# usage: build_clients.sh BUILD_FOLDER SOURCE_FOLDER WORK_FOLDER SANITIZERS
set -euo pipefail
build=$1 source=$2 work=$3 sanitizers=$4

rm -rf "$work/package" "$work/consumer"
mkdir -p "$work/consumer"
cmake --install "$build" --prefix "$work/package" >/dev/null

for file in sbin/rvzd_server bin/veliactl share/man/man1/veliactl.1 share/man/man8/rvzd_server.8 \
    share/man/man5/rvzd_server.conf.5 lib/systemd/system/rvzd_server.service include/veliaxdr/rvzd_handle.h \
    share/bash-completion/completions/veliactl share/zsh/site-functions/_veliactl; do
    [ -s "$work/package/$file" ] || { echo "the package lacks $file"; exit 1; }
done

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
cc -std=c11 -Wall -Werror "${flags[@]}" "$source/client.c" -o "$work/client" "${words[@]}" "-Wl,-rpath,$(dirname "$libs")"
expect_its_words "$work/client"

echo "find_package"
cp "$source/client.c" "$work/consumer/"
cp "$source/CMakeLists.consumer.txt" "$work/consumer/CMakeLists.txt"
cmake -S "$work/consumer" -B "$work/consumer/build" -DCMAKE_PREFIX_PATH="$work/package" \
    -DCMAKE_C_FLAGS="${flags[*]}" >/dev/null
cmake --build "$work/consumer/build" >/dev/null
expect_its_words "$work/consumer/build/client"

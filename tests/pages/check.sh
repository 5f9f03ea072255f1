#!/usr/bin/env bash
# The pages name what the code asks for: every environment variable, every subsystem that traces, every file of the tree.
# And the tutorial shows the sample as it is.
#
# usage: check.sh SOURCE_FOLDER
set -uo pipefail
cd "$1" || exit 1
failed=0 checked=0

require_in() { # word, pages...
    local word=$1 page
    shift
    for page in "$@"; do
        checked=$((checked + 1))
        grep -qF -- "$word" <(tr -d '\\' <"$page") || { echo "$page does not name $word"; failed=1; }
    done
}

code() { # expression: what its matches in product code hold between quotation marks
    grep -rhoE --include='*.cpp' --include='*.h' -- "$1" lib support schedule server cli | grep -oE '"[^"]+"' | tr -d '"' | sort -u
}

for variable in $(code 'getenv(_safe)?\("[A-Z_]+"') $(code '_variable(\[\])? = "[A-Z_]+"') \
    $(code 'read_environment_port\("[A-Z_]+"'); do
    require_in "$variable" doc/files.md doc/man/velia-files.5
done
for file in $(code '(config|priv|log)_dir\([^)]*"[^"]+"') $(code '(file_name|(hosts|region|role|log)_file|marker)[a-z_]*(\[\])? = "[a-z./_]+"'); do
    require_in "$file" doc/files.md doc/man/velia-files.5
done
for subsystem in $(grep -rlE --include='*.cpp' 'is_traced\(|imsg_should_trace\("' lib server support | xargs -n1 dirname | sort -u |
    while read -r folder; do
        grep -rhoE --include='*.cpp' --include='*.h' 'subsystem\[\] = "[^"]+"|imsg_should_trace\("[^"]+"' "$folder"
    done | grep -oE '"[^"]+"' | tr -d '"' | sort -u); do
    [ "$subsystem" = poolmap ] || require_in ".B $subsystem" doc/man/velia-files.5
done
# What the tutorial shows of the sample stands in it.
shown=$(awk '/^```/ { within = 0 } within; /^```c$/ { getline; within = /^static tbs|^static void/; if (within) print }' \
    doc/tutorial.md | grep .)
[ "$(wc -l <<<"$shown")" -gt 20 ] || { echo "the tutorial shows little of the sample"; failed=1; }
while IFS= read -r line; do
    grep -qxF -- "$line" samples/echo_server.c || { echo "the sample has no line: $line"; failed=1; }
done <<<"$shown"

echo "$checked names looked for"
[ "$checked" -gt 40 ] || { echo "too few: the code is written in another way now"; failed=1; }
exit "$failed"

#!/usr/bin/env bash
# The graph of the library's modules as the symbols of its objects give it: who uses what another defines. No arrow may
# point up. Prints the graph.
#
# usage: check_modules.sh OBJECT_FOLDER     (of the library: .../lib/CMakeFiles/veliaxdr_objects.dir)
set -euo pipefail
objects=$(realpath "$1")
cd "$(dirname "$0")/.."

# Each module with its level and its objects; the first that fits an object is its own. A module may use those below.
modules='
0 common         common/
1 messages       rvzd/xdr/messages/
2 xdr            rvzd/xdr/
3 time_zone      rvzd/client/clnt_timezone/
3 registry_local rvzd/client/registry_clnt/local/
4 broker         rvzd/client/rvzd_clnt/|rvzd/client/clnt_list
5 registry       rvzd/client/registry_clnt/
6 settings       rvzd/client/rvzd_knob/
6 poolmap        rvzd/client/poolmap
6 scheduler      rvzd/client/sched_c_clnt/
7 server_groups  rvzd/client/server_groups
7 sched_utl      rvzd/sched_utl/
8 definitions    rvzd/sched_utl_parse/
'

symbols() { # lines of "object kind symbol", kind D for what an object defines for all, U for what it wants
    find "$objects" -name '*.o' | LC_ALL=C sort | while read -r object; do
        local source=${object#"$objects"/}
        [ -e "lib/${source%.o}" ] || continue # of a file that was moved or removed
        nm "$object" | awk -v object="${object#"$objects"/}" '
            NF == 3 && $2 ~ /[TDBR]/ { print object, "D", $3 }
            NF == 2 && $1 == "U" { print object, "U", $2 }'
    done
}

symbols | awk -v modules="$modules" '
    BEGIN {
        count = split(modules, lines, "\n")
        for (i = 1; i <= count; ++i)
            if (split(lines[i], words, " ") == 3) {
                name[++known] = words[2]; level[words[2]] = words[1]; pattern[known] = "^(" words[3] ")"
            }
    }
    function module_of(object,   i) {
        for (i = 1; i <= known; ++i)
            if (object ~ pattern[i])
                return name[i]
        print "no module: " object > "/dev/stderr"
        failed = 1
        return ""
    }
    $2 == "D" { definer[$3] = module_of($1) }
    $2 == "U" { wanted[++wants] = $3; wanter[wants] = module_of($1); where[wants] = $1 }
    END {
        for (i = 1; i <= wants; ++i) {
            from = wanter[i]; to = definer[wanted[i]]
            if (to == "" || to == from)
                continue
            ++arrows[from " " to]
            if (level[to] >= level[from]) {
                print "An arrow that does not point down: " where[i] " (" from ") uses " wanted[i] " of " to > "/dev/stderr"
                failed = 1
            }
        }
        for (i = known; i >= 1; --i) {
            line = ""
            for (j = known; j >= 1; --j)
                if (arrows[name[i] " " name[j]] > 0)
                    line = line " " name[j] "(" arrows[name[i] " " name[j]] ")"
            if (line != "")
                printf "  %-15s ->%s\n", name[i], line
        }
        exit failed
    }'
echo "The modules of the library depend downwards only."

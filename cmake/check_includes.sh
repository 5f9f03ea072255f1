#!/usr/bin/env bash
# Directions of dependence, from the #include lines: nothing points up.
set -euo pipefail
cd "$(dirname "$0")/.."

failed=0
refuse() { # folder, forbidden include pattern, why, headers that may be included all the same
    local hits
    hits=$(grep -rHnE "^#include [<\"]($2)" $1 2>/dev/null | grep -vE "#include <(${4:-none})>" || true)
    if [ -n "$hits" ]; then
        printf '%s: %s\n%s\n' "$1" "$3" "$hits" >&2
        failed=1
    fi
}

only() { # include pattern, why, the files that may
    local pattern=$1 why=$2 hits
    shift 2
    hits=$(grep -rlE "^#include <($pattern)" include lib support schedule server cli samples tests bench fuzz |
        grep -vxF "$(printf '%s\n' "$@")" || true)
    if [ -n "$hits" ]; then
        printf '<%s>: %s\n%s\n' "$pattern" "$why" "$hits" >&2
        failed=1
    fi
}

# The foundation stands below all and uses only the C library.
foundation='common/(text_file|text_cursor|local_road)\.h'
foundation_files='lib/common/text_file.h lib/common/text_file.cpp lib/common/text_cursor.h lib/common/local_road.h lib/common/local_road.cpp'
standard_containers='string|vector|map|set|unordered_map|unordered_set|memory|functional|list|deque|optional|mutex|thread|iostream|sstream|fstream|exception|stdexcept'

refuse support '(veliaxdr|rvzd|common|lib|server|cli)/' 'the support layer knows nothing above it but the foundation' "$foundation"
refuse include/support '(veliaxdr|rvzd|common|lib|server|cli)/' 'the support layer knows nothing above it'
refuse include/veliaxdr '(rvzd|common|lib|server|cli|tests)/' 'public headers include public headers only'
refuse lib '(server|cli|tests|samples)/' 'the library knows nothing of programs and tests'
refuse lib "($standard_containers)>" 'no containers and owners: a raise runs no destructor'
refuse lib/common '(rvzd|veliaxdr/rvzd)' 'the common frame stands below the clients'
refuse lib/rvzd/xdr '(rvzd/client)/' 'XDR routines stand below the clients'
refuse "$foundation_files" '(support|veliaxdr|rvzd|common|lib|server|cli|tests|rpc)/' \
    'the foundation stands below all else of ours' "$foundation"
refuse schedule '(common|rvzd|lib|server|cli|tests)/' 'what a schedule means knows public headers and the foundation' \
    "$foundation"
refuse server '(common|rvzd|lib|cli|tests)/' 'the daemon uses the public headers, as any outsider would, and the foundation' \
    "$foundation|common/require\.h"
refuse cli '(common|rvzd|lib|server|tests)/' 'the tool uses the public headers, as any outsider would, and the foundation' \
    "$foundation"
refuse samples '(common|rvzd|lib|server|cli|tests)/' 'samples use the public headers, as any outsider would'

dear='a file that includes it takes ten seconds to compile'
only CLI/ "$dear" cli/parser.cpp server/daemon/command_line.cpp tests/relay/options.h
only nlohmann/ "$dear" cli/output.cpp cli/json_lines.cpp tests/system/support/json.cpp

[ "$failed" -eq 0 ] && echo "Directions of includes are as they should be."
exit "$failed"

#!/usr/bin/env bash
# Compiles the example at the top of each public header: of a .h as C11, of a .hpp as C++20.
#
# usage: check.sh SOURCE_FOLDER COMPILER_FLAGS...
set -uo pipefail
source=$1
shift
examples=0 failed=0

example_of() { # the indented lines of the comment that opens the header
    awk '/^\/\*/ { within = 1 } within && /^ \*     / { print substr($0, 8) } /^#(ifndef|pragma once)/ { exit }' "$1"
}

# What each example finds around it; the names that it does not use are nobody's concern.
surroundings='
    tbs_status_t status = 0; uint32_t program = 390600, count = 2; int step = 1, listener = 0;
    const char *host = "build7", *text = "", *path = "", *directory = "";
    rvzd_handle_t *handle = NULL; rvzd_rpc_trait_t trait = {0}; rvzd_socket_desc_t descs[4]; tbs_uuid_t uuid = {{0}};
    struct timeval time_out = {5, 0}; entry_t *record = NULL;
    sched_h_t scheduler = NULL; sched_job_h_t nightly = NULL; sched_job_rw_properties_t job = {0};
    sched_job_id_t job_id = 17;
    XDR stream; XDR *xdrs = &stream; CLIENT *client = NULL; struct sockaddr *address = NULL; stg_area_t area = NULL;'

for header in "$source"/include/veliaxdr/*.h "$source"/include/veliaxdr/*.hpp "$source"/include/support/*.h; do
    example=$(example_of "$header")
    [ -n "$example" ] || { echo "no example: $header"; failed=1; continue; }
    examples=$((examples + 1))
    case $header in
    *.hpp) language=(-std=gnu++20 -x c++) ;;
    *) language=(-std=gnu11 -x c) ;;
    esac
    printf '#include "%s"\n#include "%s/tests/examples/prelude.h"\n#include <veliaxdr/rvzd_svr.h>\ntbs_status_t example(int argc, char **argv);\ntbs_status_t example(int argc, char **argv) {\n%s\n    {\n%s\n    }\n    return status;\n}\n' \
        "$header" "$source" "$surroundings" "$example" |
        "${CC:-cc}" "${language[@]}" -fsyntax-only -Wall -Werror -Wno-unused -Wno-maybe-uninitialized "$@" - ||
        { echo "the example does not compile: $header"; failed=1; }
done
echo "$examples examples"
exit "$failed"

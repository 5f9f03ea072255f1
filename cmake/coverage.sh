#!/usr/bin/env bash
# After the tests of a build that counts: a table of lines and branches for each folder, pages to click through, and
# failure where a number is below its floor. Branches are counted where the source has a condition: what a compiler makes
# of the clean-up behind a call that may throw was written by nobody, and no test can take most of it. A process that is
# killed has written nothing; the tests let the daemon end before they kill it.
set -euo pipefail
build=$(realpath "$1")
cd "$(dirname "$0")/.."

# Folder, least percent of lines and of branches that the tests have to run.
floors="
lib      98.0 94.8
support  95.5 84.5
schedule 97.5 88.0
server   90.5 71.0
cli      93.5 70.0
"

options=(--quiet --rc lcov_branch_coverage=1 --rc genhtml_branch_coverage=1 --rc geninfo_no_exception_branch=1)

count() {
    local patterns
    mapfile -t patterns < <(awk -v top="$PWD" 'NF { print top "/" $1 "/*" }' <<<"$floors")
    lcov "${options[@]}" --capture --directory "$build" --base-directory "$PWD" --no-external --output-file "$build/all.info"
    lcov "${options[@]}" --extract "$build/all.info" "${patterns[@]}" --output-file "$build/product.info"
    genhtml "${options[@]}" --prefix "$PWD" --title libveliaxdr --output-directory "$build/pages" "$build/product.info"
}

# These programs warn of themselves.
count 2>"$build/lcov.log" || {
    cat "$build/lcov.log" >&2
    exit 1
}

awk -v top="$PWD/" '
    FNR == NR {
        if (NF) { folders[++count] = $1; floor[$1, "lines"] = $2; floor[$1, "branches"] = $3 }
        next
    }
    /^SF:/ {
        file = substr($0, 4)
        folder = substr(file, 1 + length(top))
        sub("/.*", "", folder)
        delete source
        for (at = 1; (getline text < file) > 0; ++at) source[at] = text
        close(file)
    }
    # Line, block, branch, and how often it was taken, or "-" where its block was not.
    /^BRDA:/ {
        split(substr($0, 6), part, ",")
        if (source[part[1]] ~ /(^|[^a-z_])(if|for|while|switch|case|catch)([^a-z_]|$)|\?|&&|\|\|/) {
            ++all[folder, "branches"]
            run[folder, "branches"] += part[4] > 0
        }
    }
    /^LF:/ { all[folder, "lines"] += substr($0, 4) }
    /^LH:/ { run[folder, "lines"] += substr($0, 4) }
    function tell(folder, what) {
        percent = all[folder, what] ? 100 * run[folder, what] / all[folder, what] : 0
        low = percent < floor[folder, what]
        failed += low
        printf "%-10s %-9s %6d of %6d %7.1f %%   floor %.1f %%%s\n", folder, what, run[folder, what], all[folder, what],
            percent, floor[folder, what], low ? "   BELOW" : ""
    }
    END {
        for (i = 1; i <= count; ++i) { tell(folders[i], "lines"); tell(folders[i], "branches") }
        exit failed > 0
    }
' <(echo "$floors") "$build/product.info" || failed=1
echo "Pages: $build/pages/index.html"
exit "${failed:-0}"

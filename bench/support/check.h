// What a benchmark cannot do without: where it fails there is nothing to measure.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace bench {

inline void check(bool ok, const char *what) {
    if (ok)
        return;
    fprintf(stderr, "%s failed\n", what);
    exit(1);
}

} // namespace bench

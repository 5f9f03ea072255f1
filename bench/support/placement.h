// Where the two ends of a call run. Left alone, they move between processors, and a call that wakes the other end on
// another one takes up to three times as long as one that does not, in the same run.
#pragma once

namespace bench {

enum class End { client, server };

// Fixes the calling process, as this end, to a processor. VELIA_BENCH_PROCESSORS says to which: "one" for both ends
// (the default), "two" for one each, "any" for none.
void pin(End end);

} // namespace bench

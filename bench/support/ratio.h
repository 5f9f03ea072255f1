// Benchmarks against their baselines. All benchmarks of a program are run many times, interleaved at random, so that a
// machine whose speed drifts slows both sides of a ratio alike; what is compared are medians.
#pragma once

#include <string>
#include <vector>

namespace bench {

struct Ratio {
    std::string measured; // names of benchmarks of this program
    std::string baseline;
    double target; // most that the ratio should be; 0: none
};

struct Limit {
    std::string measured;
    double most_ns;
};

// Runs the program's benchmarks and prints ratios and limits behind them. What main() returns: not 0 when one is
// missed.
int run(int argc, char **argv, const std::vector<Ratio> &ratios, const std::vector<Limit> &limits = {});

} // namespace bench

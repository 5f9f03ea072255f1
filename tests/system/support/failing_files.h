// Programs under test for which the n-th thing that they do to a file of the site fails.
#pragma once

#include <cerrno>
#include <string>
#include <vector>

#include <tests/system/support/site.h>

namespace velia::system_test {

class FailingFiles {
public:
    // Of a disk that is full from then on, of one that takes half of a write before, of one that spoils one thing.
    enum class Way { full, short_of_room, full_once, bad_once };
    static constexpr Way ways[] = {Way::full, Way::short_of_room, Way::full_once, Way::bad_once};

    explicit FailingFiles(const Site &site) : site_(site) {}

    // For the program, or for several at a time, each of which counts for itself.
    std::vector<std::string> environment() const;

    // From now on it is the one with this number that fails.
    void begin(int at, Way way);

    // From now on none does. Whether one has.
    bool end() const;

    // Lets the 1st, 2nd, ... thing fail that `step` does, until there are no more of them: `step` begins, does its
    // work, and gives back what `end` said. How many there were. Each in each way where VELIA_TEST_KILLS asks for much.
    template <class Step>
    int sweep(Step &&step, int stride) {
        int last = 0;
        const int ways_at_a_time = is_much_wanted() ? 4 : 1;
        for (int first = 0; first < ways_at_a_time; ++first)
            for (int at = 1, turn = first; at < things_max; at += is_much_wanted() ? 1 : stride, ++turn) {
                if (!step(at, ways[static_cast<size_t>(turn) % 4]))
                    break;
                last = at;
            }
        return last;
    }

private:
    static constexpr int things_max = 3000;
    static bool is_much_wanted();

    const Site &site_;
    int label_ = 0;
};

} // namespace velia::system_test

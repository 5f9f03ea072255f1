// The search of Wing and Gong, remembering where it has been: a state is how far the history is done, which of what is
// uncertain has been done, and the key's value. What ended first is never overtaken by what began behind that.
#include <tests/system/postgres/history.h>

#include <algorithm>
#include <limits>
#include <map>
#include <ostream>
#include <set>
#include <sstream>

namespace velia::system_test {

namespace {

using Kind = Operation::Kind;
using Answer = Operation::Answer;
constexpr int64_t never_us = std::numeric_limits<int64_t>::max();

// What the key has behind it; nothing where the operation cannot have come here.
std::optional<uint32_t> apply(const Operation &operation, uint32_t value) {
    const bool is_done = operation.answer == Answer::done;
    switch (operation.kind) {
    case Kind::add:
        if (operation.answer == Answer::refused)
            return value != 0 ? std::optional(value) : std::nullopt;
        return value == 0 ? std::optional(operation.value) : std::nullopt;
    case Kind::remove:
        if (operation.answer == Answer::refused)
            return value != operation.value ? std::optional(value) : std::nullopt;
        return value == operation.value ? std::optional(0U) : std::nullopt;
    default:
        return is_done && value == operation.value ? std::optional(value) : std::nullopt;
    }
}

class Search {
public:
    explicit Search(std::span<const Operation> operations) : operations_(operations.begin(), operations.end()) {
        for (Operation &operation : operations_)
            if (operation.answer == Answer::uncertain)
                operation.end_us = never_us;
        std::stable_sort(operations_.begin(), operations_.end(),
                         [](const Operation &left, const Operation &right) { return left.begin_us < right.begin_us; });
        for (size_t place = 0; place < operations_.size(); ++place)
            if (is_uncertain(place))
                uncertain_.push_back(place);
        certain_ = operations_.size() - uncertain_.size();
    }

    bool succeeds() {
        std::vector<State> open = {State{}};
        while (!open.empty()) {
            const State state = std::move(open.back());
            open.pop_back();
            if (state.certain == certain_)
                return true;
            for (State &next : after(state))
                if (seen_.insert(next).second)
                    open.push_back(std::move(next));
        }
        return false;
    }

private:
    struct State {
        size_t first = 0;            // all before it are done, but the uncertain ones
        std::vector<size_t> further; // done from there on, in order
        std::vector<size_t> earlier; // uncertain ones before it that are done, in order
        size_t certain = 0;          // done of those that are certain
        uint32_t value = 0;
        auto operator<=>(const State &) const = default;
    };

    static bool has(const std::vector<size_t> &list, size_t place) {
        return std::binary_search(list.begin(), list.end(), place);
    }
    static void put(std::vector<size_t> &list, size_t place) {
        list.insert(std::lower_bound(list.begin(), list.end(), place), place);
    }
    bool is_uncertain(size_t place) const { return operations_[place].answer == Answer::uncertain; }

    // The states that one more operation leads to.
    std::vector<State> after(const State &state) {
        std::vector<State> next;
        for (const size_t place : uncertain_before(state))
            take(state, place, next);
        int64_t first_end_us = never_us;
        for (size_t place = state.first; place < operations_.size(); ++place) {
            if (operations_[place].begin_us > first_end_us)
                break;
            if (has(state.further, place))
                continue;
            first_end_us = std::min(first_end_us, operations_[place].end_us);
            take(state, place, next);
        }
        return next;
    }

    std::vector<size_t> uncertain_before(const State &state) const {
        std::vector<size_t> places;
        for (const size_t place : uncertain_)
            if (place < state.first && !has(state.earlier, place))
                places.push_back(place);
        return places;
    }

    void take(const State &state, size_t place, std::vector<State> &next) const {
        const auto value = apply(operations_[place], state.value);
        if (!value)
            return;
        State taken = state;
        taken.value = *value;
        taken.certain += is_uncertain(place) ? 0 : 1;
        put(place < state.first ? taken.earlier : taken.further, place);
        move_on(taken);
        next.push_back(std::move(taken));
    }

    // What is uncertain holds nobody up.
    void move_on(State &state) const {
        while (state.first < operations_.size()) {
            const bool is_done = has(state.further, state.first);
            if (!is_done && !is_uncertain(state.first))
                return;
            if (is_done) {
                if (is_uncertain(state.first))
                    put(state.earlier, state.first);
                state.further.erase(state.further.begin());
            }
            ++state.first;
        }
    }

    std::vector<Operation> operations_;
    std::vector<size_t> uncertain_;
    size_t certain_ = 0;
    std::set<State> seen_;
};

std::string fault_in_stamps(const std::vector<Operation> &history) {
    std::set<uint64_t> stamps;
    for (const Operation &operation : history)
        if (operation.kind == Kind::add && operation.answer == Answer::done && operation.stamp != 0 &&
            !stamps.insert(operation.stamp).second)
            return "two adds were made on one stamp";
    return "";
}

std::string told(uint32_t key, const std::vector<Operation> &operations) {
    std::ostringstream words;
    words << "key " << key << ":\n";
    for (const Operation &operation : operations) {
        PrintTo(operation, &words);
        words << '\n';
    }
    return words.str();
}

} // namespace

void PrintTo(const Operation &operation, std::ostream *out) {
    constexpr const char *kinds[] = {"add", "remove", "look up"};
    constexpr const char *answers[] = {"done", "refused", "uncertain"};
    *out << operation.begin_us << '-' << operation.end_us << ' ' << kinds[static_cast<size_t>(operation.kind)] << ' '
         << operation.value << ' ' << answers[static_cast<size_t>(operation.answer)];
}

bool is_linearizable(std::span<const Operation> of_one_key) {
    return Search(of_one_key).succeeds();
}

Finding judge(const std::vector<Operation> &history) {
    Finding finding;
    finding.operations = history.size();
    finding.fault = fault_in_stamps(history);
    std::map<uint32_t, std::vector<Operation>> keys;
    for (const Operation &operation : history) {
        finding.uncertain += operation.answer == Answer::uncertain ? 1 : 0;
        keys[operation.key].push_back(operation);
    }
    finding.keys = keys.size();
    for (const auto &[key, operations] : keys)
        if (finding.fault.empty() && !is_linearizable(operations))
            finding.fault = told(key, operations);
    return finding;
}

} // namespace velia::system_test

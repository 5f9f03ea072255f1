// What clients of a registry saw, and whether one registry that does one thing after the other may have told them so.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace velia::system_test {

// A key of the registry has a value or none; a value is added once at most, by whomever.
struct Operation {
    enum class Kind : uint8_t { add, remove, look_up };
    // An add that was refused found another value there, a removal did not find its own; of what is uncertain nobody
    // knows whether it was done, or when.
    enum class Answer : uint8_t { done, refused, uncertain };

    Kind kind = Kind::look_up;
    Answer answer = Answer::done;
    uint32_t key = 0;
    uint32_t value = 0; // that was added, or removed, or found; 0: none was found
    uint64_t stamp = 0; // that the add was made on
    int64_t begin_us = 0;
    int64_t end_us = 0;
};
void PrintTo(const Operation &operation, std::ostream *out);

// One key's: whether there is an order of them in which each happened between its beginning and its end, or, if it is
// uncertain, after its beginning or never.
bool is_linearizable(std::span<const Operation> of_one_key);

struct Finding {
    size_t operations = 0;
    size_t uncertain = 0;
    size_t keys = 0;
    std::string fault; // empty: none
};

// Of a whole history: each key, and that no two adds were made on one stamp.
Finding judge(const std::vector<Operation> &history);

} // namespace velia::system_test

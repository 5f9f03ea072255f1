#include <tests/relay/harms.h>

namespace velia::relay {

namespace {

constexpr unsigned copy_delay_ms_max = 50;
constexpr size_t word_bytes = 4;

constexpr std::array<const char *, 9> event_names = {"messages",  "dropped",     "doubled", "reordered", "delayed",
                                                     "corrupted", "connections", "cut",     "dribbled"};

} // namespace

Dice::Dice(uint64_t seed, uint64_t client_number, Direction direction) {
    std::seed_seq sequence = {static_cast<uint32_t>(seed), static_cast<uint32_t>(seed >> 32),
                              static_cast<uint32_t>(client_number), static_cast<uint32_t>(direction)};
    random_.seed(sequence);
}

bool Dice::falls(double probability) {
    return std::uniform_real_distribution<double>(0, 1)(random_) < probability;
}

unsigned Dice::up_to(unsigned most) {
    return static_cast<unsigned>(random_() % (static_cast<uint64_t>(most) + 1));
}

// Each fate takes the same number of throws, whatever it is: what is likely changes none of the others.
Fate Dice::next(const Harms &harms) {
    Fate fate = {};
    fate.is_dropped = falls(harms.dropped);
    fate.is_doubled = falls(harms.doubled);
    fate.is_reordered = falls(harms.reordered);
    fate.is_corrupted = falls(harms.corrupted);
    fate.is_cut = falls(harms.cut);
    fate.is_dribbled = falls(harms.dribbled);
    fate.delay_ms = up_to(harms.delay_ms_max);
    fate.copy_delay_ms = up_to(copy_delay_ms_max);
    fate.quarters_passed = up_to(4);
    fate.spoiling = 1 + up_to(UINT32_MAX - 1);
    fate.spoiled_choice = up_to(1);
    return fate;
}

std::string Tally::text() const {
    std::string text;
    for (size_t i = 0; i < events; ++i)
        text += std::string(event_names[i]) + " " + std::to_string(counts_[i]) + "\n";
    return text;
}

bool spoil(std::string &message, size_t header_offset, Direction direction, const Fate &fate) {
    const size_t word = direction == Direction::request ? 1 : fate.spoiled_choice;
    if (message.size() < header_offset + 2 * word_bytes)
        return false;
    for (size_t i = 0; i < word_bytes; ++i) {
        char &byte = message[header_offset + word * word_bytes + i];
        byte = static_cast<char>(byte ^ static_cast<char>(fate.spoiling >> (8 * (word_bytes - 1 - i))));
    }
    return true;
}

} // namespace velia::relay

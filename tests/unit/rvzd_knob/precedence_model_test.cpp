// Which place is in force: every setting, with each of its places absent, empty, malformed or set, against a model that
// knows nothing of how places are read. Places that a setting does not have hold a value, too, and must not count.
#include <tests/unit/rvzd_knob/knob_fixture.h>

#include <cstring>

#include <tests/unit/rvzd_knob/expected_knobs.h>

namespace {

using namespace velia::rvzd_knob;

enum State { absent, empty, malformed, set, state_count };
enum Place { user, host, site_place, default_place, place_count };
using States = std::array<State, place_count>;

struct Outcome {
    tbs_status_t status;
    std::string value; // spelled; only with a status of 0
    bool operator==(const Outcome &) const = default;
    friend void PrintTo(const Outcome &outcome, std::ostream *out) {
        *out << outcome.status << " \"" << outcome.value << '"';
    }
};

constexpr size_t buffer_size = 32;

// A value that tells its place: as a number, and, for booleans, TRUE for every other place.
std::string value_of(int32_t type, Place place) {
    if (type == KNOB_INTEGER)
        return std::to_string(100 + place);
    if (type == KNOB_BOOLEAN)
        return place % 2 == 0 ? "TRUE" : "FALSE";
    return "of" + std::to_string(place);
}

std::string text_of(int32_t type, State state, Place place) {
    if (state == empty)
        return "";
    if (state == set)
        return value_of(type, place);
    return type == KNOB_STRING ? std::string(buffer_size, 'x') : "junk"; // a string is malformed if it does not fit
}

bool has_place(const ExpectedKnob &knob, Place place) {
    const char *letters[] = {"U", "H", "SY", "D"};
    return strpbrk(knob.knoblets, letters[place]) != nullptr;
}

Outcome expected(const ExpectedKnob &knob, const States &states) {
    for (int at = user; at < place_count; ++at) {
        const auto place = static_cast<Place>(at);
        if (!has_place(knob, place) || states[place] == absent)
            continue;
        if (states[place] == empty && place == host) // a file without a line
            return {TBS_ST_ERROR, ""};
        if (states[place] == set || (states[place] == empty && knob.type == KNOB_STRING))
            return {TBS_ST_OK, states[place] == set ? value_of(knob.type, place) : ""};
        return {TBS_ST_INVALID_ARG, ""};
    }
    return {TBS_ST_ERROR, ""};
}

class PrecedenceModel : public KnobTest {
protected:
    void put_states(const ExpectedKnob &knob, const States &states) {
        texts_[user] = text_of(knob.type, states[user], user);
        write_profile(states[user] == absent ? "" : "model option " + texts_[user] + "\n");
        row(knob.id).knoblets[KNOBLET_USER].detail = "model option %";
        const std::string path =
            (knob.id >= 30 && knob.id <= 54 ? "host/data/lyfsconfig/" : "host/config/") + std::string(knob.name);
        if (states[host] == absent)
            std::filesystem::remove(world.root() + "/" + path);
        else
            world.write_file(path, text_of(knob.type, states[host], host) + (states[host] == empty ? "" : "\n"));
        site.entries.clear();
        site.put("other", "1");
        if (states[site_place] != absent)
            site.put(knob.name, text_of(knob.type, states[site_place], site_place));
        texts_[default_place] = text_of(knob.type, states[default_place], default_place);
        row(knob.id).knoblets[KNOBLET_DEFAULT].present = states[default_place] != absent;
        row(knob.id).knoblets[KNOBLET_DEFAULT].default_spelling = texts_[default_place].c_str();
    }

    static Outcome in_force(const ExpectedKnob &knob) {
        int32_t number = 0;
        char text[buffer_size] = "";
        switch (knob.type) {
        case KNOB_BOOLEAN: {
            const auto status = rvzd_knob_get_boolean(knob.id, nullptr, &number);
            return {status, status != TBS_ST_OK ? "" : number != 0 ? "TRUE" : "FALSE"};
        }
        case KNOB_INTEGER: {
            const auto status = rvzd_knob_get_integer(knob.id, nullptr, &number);
            return {status, status != TBS_ST_OK ? "" : std::to_string(number)};
        }
        default: {
            const auto status = rvzd_knob_get_string(knob.id, nullptr, sizeof text, text);
            return {status, status != TBS_ST_OK ? "" : text};
        }
        }
    }

private:
    std::array<std::string, place_count> texts_;
};

TEST_F(PrecedenceModel, EverySettingInEveryCombinationOfItsPlaces) {
    size_t combinations = 0;
    for (const auto &knob : expected_knobs)
        for (int number = 0; number < state_count * state_count * state_count * state_count; ++number) {
            States states;
            for (int at = 0, rest = number; at < place_count; ++at, rest /= state_count)
                states[at] = static_cast<State>(rest % state_count);
            put_states(knob, states);
            ASSERT_EQ(in_force(knob), expected(knob, states)) << knob.name << ", combination " << number;
            world.take_messages();
            world.peer.calls.clear();
            ++combinations;
        }
    EXPECT_EQ(combinations, 57u * 256u);
}

} // namespace

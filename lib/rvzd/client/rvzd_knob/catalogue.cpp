// The catalogue: one table of all settings, in the order in which they are enumerated.
#include <rvzd/client/rvzd_knob/knob.h>

#include <cstring>

#include <common/trace.h>

using namespace velia;
using namespace velia::rvzd_knob;

ivlthread_mutex_t velia::rvzd_knob::rvzd_knob_lock;
uint8_t velia::rvzd_knob::name_lengths[knob_count];
static_assert(name_size <= UINT8_MAX);

namespace velia::rvzd_knob {
// Not constexpr: a row that reaches it does not compile.
void unknown_letter_in_knoblets();
} // namespace velia::rvzd_knob

namespace {

struct Range {
    IntegerRange integer;
    int32_t minimum;
    int32_t maximum;
    const char *list;
};

constexpr Range any = {IntegerRange::none, 0, 0, nullptr};
constexpr Range nonnegative = {IntegerRange::nonnegative, 0, 0, nullptr};
consteval Range at_least(int32_t minimum) {
    return {IntegerRange::minimum, minimum, 0, nullptr};
}
consteval Range between(int32_t minimum, int32_t maximum) {
    return {IntegerRange::between, minimum, maximum, nullptr};
}
consteval Range one_of(const char *list) {
    return {IntegerRange::none, 0, 0, list};
}

struct Messages {
    uint16_t name;
    uint16_t description;
};

// The details of those knoblets that have one.
struct Details {
    const char *host = nullptr;
    const char *user = nullptr;
};

constexpr Details none = {};
constexpr Details file_system = {"lyfsconfig", nullptr};
consteval Details profile(const char *command_template) {
    return {nullptr, command_template};
}

// Names no command, so that no profile has it: the setting falls through to its next place. Kept word for word.
constexpr Details placeholder = {nullptr, "JIVE DUMMY ENTRY TO AVOID FAILING PROFILE TEMPLATE SEARCH"};

consteval rvzd_knoblet_kind_t kind_of_letter(char letter) {
    switch (letter | 0x20) {
    case 'd':
        return KNOBLET_DEFAULT;
    case 's':
        return KNOBLET_SITE;
    case 'y':
        return KNOBLET_SYNC_SITE;
    case 'h':
        return KNOBLET_HOST;
    case 'u':
        return KNOBLET_USER;
    default:
        unknown_letter_in_knoblets();
        return KNOBLET_DEFAULT;
    }
}

// `knoblets` has a letter for each that the row declares: a capital one is there, a small one is declared absent. What
// the row says nothing of is another fault of who asks for it.
consteval Knob row(uint32_t id, Messages messages, rvzd_knob_type_t type, const char *knoblets,
                   const char *default_spelling, Range range, Details details) {
    Knob knob = {};
    knob.id = id;
    knob.name_message = messages.name;
    knob.description_message = messages.description;
    knob.type = type;
    knob.has_range = range.integer != IntegerRange::none || range.list != nullptr;
    knob.is_file_system_tuning = details.host != nullptr;
    knob.int_range_kind = range.integer;
    knob.int_min = range.minimum;
    knob.int_max = range.maximum;
    knob.str_range_kind = range.list != nullptr ? StringRange::list : StringRange::none;
    knob.str_range_list = range.list;
    for (const char *letter = knoblets; *letter != '\0'; ++letter) {
        const auto kind = kind_of_letter(*letter);
        knob.knoblets[kind] = {(*letter & 0x20) == 0, kind, nullptr, nullptr};
    }
    knob.knoblets[KNOBLET_DEFAULT].default_spelling = default_spelling;
    knob.knoblets[KNOBLET_HOST].detail = details.host;
    knob.knoblets[KNOBLET_USER].detail = details.user;
    return knob;
}

} // namespace

constinit Knob velia::rvzd_knob::rvzd_knobs[knob_count + 1] = {
    row(1, {75, 20}, KNOB_INTEGER, "DSyH", "4096000", at_least(1024000), none),
    row(2, {76, 21}, KNOB_BOOLEAN, "DS", "TRUE", any, none),
    row(3, {77, 22}, KNOB_STRING, "DsyhU", "-reserved",
        one_of("-reserved,-unreserved,-reserved -unreserved,-unreserved -reserved"),
        profile("checkout -reserved < & checkout -unreserved <")),
    row(4, {78, 23}, KNOB_BOOLEAN, "DSyhU", "FALSE", any, placeholder),
    row(5, {79, 24}, KNOB_BOOLEAN, "DS", "TRUE", any, none),
    row(6, {80, 37}, KNOB_BOOLEAN, "DSyhU", "FALSE", any, placeholder),
    row(7, {81, 38}, KNOB_BOOLEAN, "DSyhU", "FALSE", any, placeholder),
    row(8, {82, 39}, KNOB_BOOLEAN, "DSyhu", "FALSE", any, none),
    row(9, {83, 25}, KNOB_INTEGER, "DsYHu", "1", at_least(1), none),
    row(10, {84, 26}, KNOB_INTEGER, "DsYHu", "1073741824", at_least(1), none),
    row(15, {90, 32}, KNOB_INTEGER, "DsYHu", "1073741824", at_least(1), none),
    row(16, {89, 31}, KNOB_INTEGER, "DsYHu", "1073741824", at_least(1), none),
    row(11, {85, 27}, KNOB_INTEGER, "DsYHu", "3", at_least(1), none),
    row(12, {86, 28}, KNOB_INTEGER, "DsYHu", "120", between(0, 1440), none),
    row(13, {87, 29}, KNOB_STRING, "DsYhu", "", any, none),
    row(14, {88, 30}, KNOB_STRING, "DsYhu", "", any, none),
    row(17, {91, 33}, KNOB_INTEGER, "DsYHu", "100", at_least(10), none),
    row(18, {92, 34}, KNOB_INTEGER, "DsYHu", "168", between(1, 8760), none),
    row(19, {93, 35}, KNOB_INTEGER, "DsYHu", "14", between(7, 365), none),
    row(20, {94, 36}, KNOB_INTEGER, "DsYHu", "90", between(7, 365), none),
    row(21, {95, 40}, KNOB_STRING, "DsYHu", "", any, none),
    row(22, {96, 41}, KNOB_INTEGER, "DsYHu", "1073741824", at_least(1), none),
    row(23, {97, 42}, KNOB_INTEGER, "DsYHu", "3", at_least(1), none),
    row(24, {98, 43}, KNOB_INTEGER, "DsYHu", "120", between(0, 1440), none),
    row(25, {99, 44}, KNOB_INTEGER, "DsYHu", "100", at_least(10), none),
    row(26, {100, 45}, KNOB_INTEGER, "DsYHu", "168", between(1, 8760), none),
    row(27, {101, 46}, KNOB_INTEGER, "DsYHu", "14", between(7, 365), none),
    row(28, {102, 47}, KNOB_INTEGER, "DsYHu", "90", between(7, 365), none),
    row(29, {103, 48}, KNOB_STRING, "DsYHu", "", any, none),
    row(30, {104, 49}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(31, {105, 50}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(32, {106, 51}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(33, {107, 52}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(34, {108, 53}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(35, {109, 54}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(36, {110, 55}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(37, {111, 56}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(38, {112, 57}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(39, {113, 58}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(40, {114, 59}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(41, {115, 60}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(42, {116, 61}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(43, {117, 62}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(44, {118, 63}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(45, {119, 64}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(46, {120, 65}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(47, {121, 66}, KNOB_INTEGER, "DsyH", "0", nonnegative, file_system),
    row(48, {134, 135}, KNOB_INTEGER, "DsyH", "0", between(0, 9999), file_system),
    row(49, {122, 67}, KNOB_BOOLEAN, "DsyH", "TRUE", any, file_system),
    row(53, {132, 133}, KNOB_BOOLEAN, "DsyH", "TRUE", any, file_system),
    row(50, {123, 68}, KNOB_BOOLEAN, "DsyH", "TRUE", any, file_system),
    row(51, {124, 69}, KNOB_BOOLEAN, "DsyH", "TRUE", any, file_system),
    row(52, {125, 70}, KNOB_BOOLEAN, "DsyH", "TRUE", any, file_system),
    row(54, {126, 71}, KNOB_BOOLEAN, "DsyH", "TRUE", any, file_system),
    row(55, {127, 72}, KNOB_STRING, "DsyhU", "", one_of("-nmaster"), profile("checkout -nmaster <")),
    row(56, {128, 73}, KNOB_STRING, "DsyhU", "", one_of("-master"), profile("mkelem -master <")),
    row(57, {136, 137}, KNOB_INTEGER, "DsyH", "0", nonnegative, none),
    {},
};

namespace {

constexpr int fill_level = 1;
constexpr size_t first_description_size = 150;
constexpr size_t description_size_max = 10000;
constexpr int unfilled_row_line = 1492; // where users know this failure from

// Texts that another thread was about to fill are the parent's.
void leave_unfilled_texts() {
    for (Knob &knob : rvzd_knobs)
        if (knob.description_ready == 0)
            knob.description = nullptr;
}

Knob *row_of(uint32_t id) {
    for (Knob *knob = rvzd_knobs; knob->id != 0; ++knob)
        if (knob->id == id)
            return knob;
    return nullptr;
}

// A name that cannot be had leaves the description unasked.
void declare_msg_strings(Knob &knob) {
    if (knob.name_ready == 0 && imsg_sprintf(knob.name, &_rvzd_knob_rvzd_msg_table, knob.name_message) < 0)
        return;
    name_lengths[&knob - rvzd_knobs] = static_cast<uint8_t>(strlen(knob.name));
    knob.name_ready = 1;
    if (knob.description_ready != 0)
        return;
    if (knob.description == nullptr)
        knob.description_size = first_description_size;
    if (imsg_dynamic_len_snprintf(&knob.description, &knob.description_size, description_size_max, "%s",
                                  _rvzd_knob_rvzd_msg_table.texts[knob.description_message]) < 0)
        trace(subsystem, fill_level,
              "imsg_dynamic_len_snprintf failure while scanning the description of the property \"%s\".\n", knob.name);
    else
        knob.description_ready = 1;
}

} // namespace

ForkWatch velia::rvzd_knob::knob_lock_watch = {rvzd_knob_lock, leave_unfilled_texts};

void velia::rvzd_knob::rvzd_knob_initialize_all_strings() {
    with_inhibit([] {
        for (size_t i = 0; i < knob_count; ++i)
            declare_msg_strings(rvzd_knobs[i]);
        for (size_t i = 0; i < knob_count; ++i)
            if (rvzd_knobs[i].name_ready == 0 || rvzd_knobs[i].description_ready == 0)
                tbs_log_int_error(subsystem, "rvzd_knob_initialize_all_strings(#%d)", IMSG_FORMAT, source_file,
                                  unfilled_row_line, 0, static_cast<int>(i));
    });
}

const char *velia::rvzd_knob::name_of(const Knob &knob) {
    if (knob.name_ready == 0)
        rvzd_knob_initialize_all_strings();
    return knob.name;
}

const char *velia::rvzd_knob::description_of(const Knob &knob) {
    if (knob.description_ready == 0)
        rvzd_knob_initialize_all_strings();
    return knob.description;
}

Knob *velia::rvzd_knob::find_knob(uint32_t id) {
    if (id < 1 || id > RVZD_KNOB_ID_MAX) {
        print_error(KNOB_MSG_INVALID_ID, id);
        return nullptr;
    }
    Knob *knob = row_of(id);
    if (knob == nullptr)
        print_error(KNOB_MSG_NO_SUCH_KNOB, id);
    return knob;
}

const char *velia::rvzd_knob::type_word(rvzd_knob_type_t type) {
    switch (type) {
    case KNOB_BOOLEAN:
        return "boolean";
    case KNOB_INTEGER:
        return "integer";
    case KNOB_STRING:
        return "string";
    default:
        return "??unknown??";
    }
}

// What spellings mean, and which values are allowed.
#include <algorithm>
#include <string_view>

#include <rvzd/client/rvzd_knob/knob.h>
#include <support/strutl.h>

using namespace velia;

namespace {

using namespace velia::rvzd_knob;

constexpr int with_suffixes = 1;
constexpr size_t list_size_max = 1024;

// Prints what was expected of the value; `arguments` follow the name.
template <class... Arguments>
tbs_status_t out_of_range(int position, const Knob &knob, Arguments... arguments) {
    print_error(position, name_of(knob), arguments...);
    return TBS_ST_INVALID_ARG;
}

// `list` is cut up.
bool is_in_list(char *list, const char *text) {
    while (*list != '\0') {
        const std::string_view rest(list);
        const size_t length = std::min(rest.find(','), rest.size());
        const bool is_last = length == rest.size();
        list[length] = '\0';
        if (length > 0 && strutl_stricoll(text, list) == 0)
            return true;
        list += is_last ? length : length + 1;
    }
    return false;
}

tbs_status_t check_list(const Knob &knob, const char *text) {
    const char *allowed = knob.str_range_list != nullptr ? knob.str_range_list : "";
    char list[list_size_max];
    if (strutl_cpy_buf(list, allowed, sizeof list) != 0)
        return TBS_ST_INVALID_ARG;
    return is_in_list(list, text) ? tbs_status_t{TBS_ST_OK} : out_of_range(KNOB_MSG_LIST, knob, allowed, text);
}

} // namespace

namespace velia::rvzd_knob {

tbs_status_t invalid_value(const Knob &knob, const char *text) {
    print_error(KNOB_MSG_INVALID_VALUE, text, name_of(knob), type_word(knob.type));
    return TBS_ST_INVALID_ARG;
}

tbs_status_t boolean_of_spelling(const Knob &knob, const char *text, tbs_boolean_t *value) {
    const bool is_true = strutl_stricoll(text, "TRUE") == 0;
    if (!is_true && strutl_stricoll(text, "FALSE") != 0)
        return invalid_value(knob, text);
    *value = is_true ? 1 : 0;
    return TBS_ST_OK;
}

tbs_status_t integer_of_spelling(const Knob &knob, const char *text, int32_t *value) {
    int64_t number = 0;
    if (text == nullptr || strutl_kstr_or_str_to_long(text, &number, with_suffixes) != 0)
        return invalid_value(knob, text);
    *value = static_cast<int32_t>(number); // cut: the caller learns of it
    return *value == number ? tbs_status_t{TBS_ST_OK} : invalid_value(knob, text);
}

tbs_status_t check_type(const Knob &knob, rvzd_knob_type_t type) {
    if (knob.type == type)
        return TBS_ST_OK;
    print_error(KNOB_MSG_INCORRECT_TYPE, name_of(knob));
    return TBS_ST_ERROR;
}

tbs_status_t check_integer_range(const Knob &knob, int32_t value) {
    if (!knob.has_range)
        return TBS_ST_OK;
    const auto status = check_type(knob, KNOB_INTEGER);
    if (status != TBS_ST_OK)
        return status;
    switch (knob.int_range_kind) {
    case IntegerRange::nonzero:
        return value != 0 ? tbs_status_t{TBS_ST_OK} : out_of_range(KNOB_MSG_NONZERO, knob, 0);
    case IntegerRange::nonnegative:
        return value >= 0 ? tbs_status_t{TBS_ST_OK} : out_of_range(KNOB_MSG_NONNEGATIVE, knob, value);
    case IntegerRange::minimum:
        return value >= knob.int_min ? tbs_status_t{TBS_ST_OK}
                                     : out_of_range(KNOB_MSG_MINIMUM, knob, knob.int_min, value);
    case IntegerRange::maximum: // the one bound of a row, whichever side it is on
        return value <= knob.int_min ? tbs_status_t{TBS_ST_OK}
                                     : out_of_range(KNOB_MSG_MAXIMUM, knob, knob.int_min, value);
    case IntegerRange::between:
        return knob.int_min <= value && value <= knob.int_max
                   ? tbs_status_t{TBS_ST_OK}
                   : out_of_range(KNOB_MSG_BETWEEN, knob, knob.int_min, knob.int_max, value);
    default:
        return TBS_ST_ERROR;
    }
}

tbs_status_t check_string_range(const Knob &knob, const char *text) {
    if (!knob.has_range)
        return TBS_ST_OK;
    const auto status = check_type(knob, KNOB_STRING);
    if (status != TBS_ST_OK)
        return status;
    return knob.str_range_kind == StringRange::function ? knob.str_range_check(text) : check_list(knob, text);
}

} // namespace velia::rvzd_knob

tbs_status_t rvzd_knob_range_check_boolean(uint32_t id, tbs_boolean_t /*value*/) {
    return with_knob_alone(id, [&](const Knob &knob) {
        return knob.has_range ? check_type(knob, KNOB_BOOLEAN) : tbs_status_t{TBS_ST_OK};
    });
}

tbs_status_t rvzd_knob_range_check_integer(uint32_t id, int32_t value) {
    return with_knob_alone(id, [&](const Knob &knob) { return check_integer_range(knob, value); });
}

tbs_status_t rvzd_knob_range_check_string(uint32_t id, const char *text) {
    return with_knob_alone(id, [&](const Knob &knob) { return check_string_range(knob, text); });
}

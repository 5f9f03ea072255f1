// A user's values: what the user's profile gives to certain commands, by a template of clauses "command option result".
//
// A template with a "|" ends at the first clause that the profile gives, one without joins what all of them contribute.
#include <cstring>
#include <string_view>

#include <rvzd/client/rvzd_knob/knob.h>
#include <support/stg.h>
#include <support/strutl.h>

using namespace velia;
using namespace velia::rvzd_knob;

namespace {

constexpr size_t template_size = 1024;
constexpr size_t value_size = 1024;
constexpr char clause_ends[] = "&|";
constexpr char blanks[] = " \t";
constexpr char the_option[] = "<";
constexpr char the_argument[] = "%";

// The fields of a clause; null for those that it does not have.
struct Clause {
    char *command;
    char *option;
    char *result;
};

// Cuts the next part of *at off, between separators; null at the end.
char *next_part(char **at, const char *separators) {
    *at += strspn(*at, separators);
    if (**at == '\0')
        return nullptr;
    char *part = *at;
    *at += strcspn(*at, separators);
    if (**at != '\0')
        *(*at)++ = '\0';
    return part;
}

Clause fields_of(char *clause) {
    char *command = next_part(&clause, blanks);
    char *option = next_part(&clause, blanks);
    return {command, option, next_part(&clause, blanks)};
}

const char *contribution(const Clause &clause, const char *argument) {
    if (strcmp(clause.result, the_option) == 0)
        return clause.option;
    if (strcmp(clause.result, the_argument) == 0)
        return argument != nullptr ? argument : "";
    return clause.result;
}

// What was joined so far, and whether anything was.
struct Value {
    char text[value_size];
    bool is_found;
};

tbs_status_t append(const Knob &knob, const char *more, Value &value) {
    value.is_found = true;
    const char *blank = value.text[0] != '\0' ? " " : "";
    return strutl_concat(value.text, sizeof value.text, 3, value.text, blank, more) == 0 ? tbs_status_t{TBS_ST_OK}
                                                                                         : invalid_value(knob, more);
}

// A clause that lacks a field is no question.
tbs_status_t ask_profile(const Knob &knob, const Clause &clause, Value &value) {
    if (clause.result == nullptr)
        return TBS_ST_OK;
    char *argument = nullptr;
    return with_release(
        [&]() -> tbs_status_t {
            if (tbs_check_profile(clause.command, clause.option, &argument) == 0)
                return TBS_ST_OK;
            return append(knob, contribution(clause, argument), value);
        },
        [&] {
            with_inhibit([&] {
                stg_free(argument);
                argument = nullptr;
            });
        });
}

tbs_status_t evaluate(const Knob &knob, char *clauses, Value &value) {
    const bool first_decides = strchr(clauses, '|') != nullptr;
    tbs_status_t status = TBS_ST_OK;
    for (char *clause = next_part(&clauses, clause_ends); clause != nullptr && status == TBS_ST_OK;
         clause = next_part(&clauses, clause_ends)) {
        status = ask_profile(knob, fields_of(clause), value);
        if (first_decides && value.is_found)
            break;
    }
    return status == TBS_ST_OK && !value.is_found ? tbs_status_t{TBS_ST_NOT_FOUND} : status;
}

tbs_status_t copy_template(const Knob &knob, const char *detail, char (&clauses)[template_size]) {
    const bool fits = detail != nullptr && strutl_cpy_buf(clauses, detail, sizeof clauses) == 0;
    if (fits)
        return TBS_ST_OK;
    print_error(KNOB_MSG_NO_TEMPLATE, name_of(knob));
    return detail != nullptr ? TBS_ST_INVALID_ARG : TBS_ST_ERROR;
}

} // namespace

tbs_status_t velia::rvzd_knob::rvzd_knoblet_p_get_user_value_as_string(const Knob &knob, const char *detail,
                                                                       char **text) {
    *text = nullptr;
    char clauses[template_size];
    auto status = copy_template(knob, detail, clauses);
    Value value = {};
    if (status == TBS_ST_OK)
        status = evaluate(knob, clauses, value);
    if (status != TBS_ST_OK)
        return status;
    *text = stg_strdup(value.text);
    return *text != nullptr ? TBS_ST_OK : TBS_ST_NO_MEMORY;
}

// The reader underneath both grammars: a file of tagged lines, read one by one with one line of push-back. A tag is the
// first word of a line, and its value what follows it there; tables tell what is done with which.
//
// Every operation returns a status. What goes wrong is told where it is found, so whoever gets a failure passes it on.
#pragma once

#include <cstddef>
#include <iterator>

#include <common/text_file.h>
#include <support/imsg.h>
#include <support/stg.h>
#include <veliaxdr/sched_definitions.h>
#include <veliaxdr/sched_messages.h>

// One file while it is read. It owns the records that are being filled, but for those that were stored.
struct parse_state {
    sched_h_t handle;
    char path[1024];
    bool is_open;
    velia::TextFile file;
    uint32_t unget_flag; // the current line is to be delivered again
    char line[2000];     // the current line, without its end
    uint32_t line_no;    // of lines read so far
    char task_name[256];
    char follows_name[256];
    sched_job_properties_t job_rec;
    sched_task_properties_t task_rec;
    bool owes_empty_line;          // a line as long as `line` was whole; its end comes as a line of its own
    sched_notify_info_t jparse_ni; // the notification that is being read
    sched_reading_t *reading;      // null: as the described language is read
    uint32_t deliveries;           // of lines to who reads them, which comments are not
    char **exact_text;             // that goes on with a line of more, if that is the next one; null: none does
    size_t exact_length;           // how long it is by then
    uint32_t exact_delivery;       // of the line that it ends with
    size_t tag_at;                 // where in the current line its tag begins
    size_t tag_length;             // 0: it has none
    const parse_tag_action_t *searched_table; // that was asked about last: whether its rows may be tried in any order
    bool has_free_order;
    char date_word[24]; // that was read last as a date, which dates of a file often are again
    time_t date;
};

namespace velia::sched_utl_parse {

// The state belongs to the caller, who releases it with release_state.
tbs_status_t parse_new_state(sched_h_t handle, const char *path, parse_state_t **out);

// The current line is the first of a definition. What is taken ends with the current line.
void note_begin(parse_state_t *state);
void note_taken(const parse_state_t *state, uint32_t first_line);

// Clears *state first; a null state does nothing. Raises are held off.
void release_state(parse_state_t **state);

// TBS_ST_NOT_FOUND without a message at an end of the file that is allowed. With `skip_comments` lines without a word,
// and those whose first word begins with "#", are passed over.
tbs_status_t parse_next_line(parse_state_t *state, bool skip_comments, bool eof_allowed);

tbs_status_t parse_unget_cur_line(parse_state_t *state);

// The current line's tag as a whole is the expected one ("*": any), and then `action` has the line, if there is one. If
// it is another, that is a syntax error where it is required, and else the line is pushed back.
tbs_status_t parse_cur_match(parse_state_t *state, bool is_required, const char *expected_tag, parse_action_t action);

// The next line goes to the first row of the table whose tag its own begins with.
tbs_status_t parse_next_match_set(parse_state_t *state, bool skip_comments, uint32_t count,
                                  const parse_tag_action_t *table);

// The same with all lines up to that whose tag begins with the end's, which is consumed.
tbs_status_t parse_next_match_set_until(parse_state_t *state, bool skip_comments, uint32_t count,
                                        const parse_tag_action_t *table, const char *end_tag);

tbs_status_t parse_get_bool(parse_state_t *state, const char *text, tbs_boolean_t *out);
tbs_status_t parse_get_date(parse_state_t *state, const char *text, time_t *out);

// Lines that have to stand in this order, the current one first.
struct ExpectedLine {
    const char *tag;
    parse_action_t action;
};
template <size_t Count>
tbs_status_t parse_lines(parse_state_t *state, const ExpectedLine (&lines)[Count]) {
    tbs_status_t status = TBS_ST_OK;
    for (size_t i = 0; i < Count && status == TBS_ST_OK; ++i) {
        if (i > 0)
            status = parse_next_line(state, true, false);
        if (status == TBS_ST_OK)
            status = parse_cur_match(state, true, lines[i].tag, lines[i].action);
    }
    return status;
}

// Tells the line, then the problem.
template <class... Arguments>
tbs_status_t refuse(const parse_state_t *state, int message, Arguments... arguments) {
    imsg_print(IMSG_ERROR, &_sched_rvzd_msg_table, SCHED_MSG_SYNTAX_ERROR, state->line_no);
    imsg_print(IMSG_ERROR, &_sched_rvzd_msg_table, message, arguments...);
    return TBS_ST_ERROR;
}

// The value without white space around it, in place.
char *stripped(char *value);

// A value that may stand between quotation marks; `*out` is a part of it.
tbs_status_t parse_quoted(const parse_state_t *state, char *value, char **out);

// Puts a copy of a value by the same rule in the place of a text that is released.
tbs_status_t replace_by_quoted(const parse_state_t *state, char *value, char **text);

// Room for one element more behind `count`, in an array that has grown in this way only: it doubles. False without
// storage, and then the array is as it was. The caller holds raises off.
template <class Element>
bool make_room(Element *&array, size_t count) {
    const bool is_full = (count & (count - 1)) == 0; // none, or a power of two
    if (!is_full)
        return true;
    auto *grown = static_cast<Element *>(stg_realloc(array, (count != 0 ? 2 * count : 1) * sizeof(Element)));
    if (grown == nullptr)
        return false;
    array = grown;
    return true;
}

// TBS_ST_NO_MEMORY, traced under the subsystem's name.
tbs_status_t no_memory();

} // namespace velia::sched_utl_parse

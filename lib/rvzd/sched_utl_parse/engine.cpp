// Lines, tags and the values that both grammars share.
#include <rvzd/sched_utl_parse/engine.h>

#include <algorithm>
#include <cstring>

#include <common/trace.h>
#include <common/with.h>
#include <support/date.h>
#include <support/strutl.h>
#include <veliaxdr/sched_jobs.h>

namespace velia::sched_utl_parse {

namespace {

constexpr char subsystem[] = "scheduler";
constexpr char module_name[] = "sched_utl_parse";
constexpr char any_tag[] = "*";
constexpr size_t tag_size = 256;

// A line of more comes in pieces, each of which counts as one.
constexpr size_t longest_piece = sizeof(parse_state_t::line) - 1;
constexpr FileBounds definition_file = {64 << 20, longest_piece};

// Where the first word of a text begins and how long it is, cut to what a tag may have; 0 for none. The white space of
// a line is that of the C locale.
struct Word {
    size_t at;
    size_t length;
};

bool is_blank(char character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

// Most characters are told from an end by one comparison.
bool is_in_word(char character) {
    return static_cast<unsigned char>(character) > ' ' || (character != '\0' && !is_blank(character));
}

Word first_word(const char *text) {
    Word word = {0, 0};
    while (is_blank(text[word.at]))
        ++word.at;
    const char *begin = text + word.at;
    while (is_in_word(begin[word.length]))
        ++word.length;
    word.length = std::min(word.length, tag_size - 1);
    return word;
}

const char *take_first_word(const char *text, char (&word)[tag_size]) {
    const Word first = first_word(text);
    return strutl_ncpy(word, text + first.at, first.length);
}

// The current line as tag and value. A tag that was cut has its rest in the value.
struct Split {
    char tag[tag_size];
    size_t tag_length;
    char *value;
};

void split(parse_state_t *state, Split &parts) {
    parts.tag_length = state->tag_length;
    memcpy(parts.tag, state->line + state->tag_at, parts.tag_length);
    parts.tag[parts.tag_length] = '\0';
    parts.value = parts.tag_length != 0 ? state->line + state->tag_at + parts.tag_length : state->line;
}

// Letters of either case are one; so may be a few other characters, which a comparison of its own tells apart.
bool may_be_same(char left, char right) {
    constexpr int case_bit = 0x20;
    return ((left ^ right) & ~case_bit) == 0;
}

// The same bytes are the same for every comparison: the locale's is asked about others only.
bool begins_with(const Split &parts, const char *beginning) {
    size_t length = 0;
    while (beginning[length] != '\0' && parts.tag[length] == beginning[length])
        ++length;
    if (beginning[length] == '\0')
        return true;
    for (; beginning[length] != '\0'; ++length)
        if (!may_be_same(parts.tag[length], beginning[length]))
            return false;
    char begun[tag_size];
    return strutl_stricoll(strutl_ncpy(begun, parts.tag, length), beginning) == 0;
}

bool is_any(const char *tag) {
    return tag[0] == any_tag[0] && tag[1] == '\0';
}

bool is_tag(const Split &parts, const char *expected) {
    return strcmp(parts.tag, expected) == 0 ||
           (begins_with(parts, expected) && strutl_stricoll(parts.tag, expected) == 0);
}

// What is no file of definitions by its kind or size is told in the reader's own words.
tbs_status_t tell_file_error(int message, const parse_state_t *state, FileOutcome outcome) {
    char words[file_words_size];
    const tbs_status_t status = tbs_errno2status(state->file.error_number());
    imsg_print(IMSG_ERROR, &_tbs_cmsg_tbs_msg_table, message, state->path,
               is_refused(outcome) ? state->file.why(outcome, words) : tbs_strerror(status));
    return status;
}

tbs_status_t refuse_path(const char *path) {
    imsg_print(IMSG_ERROR, &_tbs_cmsg_tbs_msg_table, TBS_MSG_CANNOT_OPEN, path, tbs_strerror(TBS_ST_NAME_TOO_LONG));
    return TBS_ST_NAME_TOO_LONG;
}

tbs_status_t open_file(parse_state_t *state, const char *path) {
    if (strutl_cpy_buf(state->path, path, sizeof state->path) != 0)
        return refuse_path(path);
    const FileOutcome outcome = with_inhibit([&] {
        const FileOutcome opened = state->file.open(state->path, definition_file);
        state->is_open = opened == FileOutcome::ok;
        return opened;
    });
    return outcome == FileOutcome::ok ? tbs_status_t{TBS_ST_OK} : tell_file_error(TBS_MSG_CANNOT_OPEN, state, outcome);
}

FileOutcome read_piece(parse_state_t *state) {
    if (state->owes_empty_line) {
        state->owes_empty_line = false;
        state->line[0] = '\0';
        return FileOutcome::ok;
    }
    TextLine piece;
    const FileOutcome outcome = state->file.next_line(piece);
    if (outcome != FileOutcome::ok && outcome != FileOutcome::line_too_long)
        return outcome;
    const size_t length = strnlen(piece.text, piece.length); // a line with a byte of zeros ends there
    memcpy(state->line, piece.text, length);
    state->line[length] = '\0';
    state->owes_empty_line = outcome == FileOutcome::ok && piece.has_end && piece.length == longest_piece;
    return FileOutcome::ok;
}

// Every way to a line leads through here, so that its tag is known.
FileOutcome read_line(parse_state_t *state) {
    const FileOutcome outcome = read_piece(state);
    if (outcome != FileOutcome::ok)
        return outcome;
    const Word tag = first_word(state->line);
    state->tag_at = tag.at;
    state->tag_length = tag.length;
    ++state->line_no;
    if (state->reading != nullptr)
        state->reading->line = state->line_no;
    return outcome;
}

bool is_comment(const parse_state_t *state) {
    return state->tag_length == 0 || state->line[state->tag_at] == '#';
}

tbs_status_t expected_another(const parse_state_t *state, const char *tag) {
    return refuse(state, SCHED_MSG_EXPECTED_TAG, tag);
}

struct TagTable {
    uint32_t count;
    const parse_tag_action_t *rows;
};

// Whether a tag could begin with both.
bool may_both_begin_one(const char *left, const char *right) {
    while (*left != '\0' && *right != '\0')
        if (!may_be_same(*left++, *right++))
            return false;
    return true;
}

bool no_tag_has_two_rows(const TagTable &table) {
    for (uint32_t i = 0; i < table.count; ++i)
        for (uint32_t k = 0; k < i; ++k)
            if (is_any(table.rows[i].tag) || may_both_begin_one(table.rows[i].tag, table.rows[k].tag))
                return false;
    return true;
}

// Whether the table may be searched from any of its rows. It is looked at once, and only if it is long.
bool may_begin_anywhere(parse_state_t *state, const TagTable &table) {
    constexpr uint32_t short_table = 4;
    if (table.count <= short_table)
        return false;
    if (state->searched_table != table.rows) {
        state->searched_table = table.rows;
        state->has_free_order = no_tag_has_two_rows(table);
    }
    return state->has_free_order;
}

// Lines mostly come in the order of their rows: so the search begins at `likely`, and leaves there what it found.
const parse_tag_action_t *row_for(const Split &parts, const TagTable &table, uint32_t &likely) {
    for (uint32_t tried = 0, i = likely; tried < table.count; ++tried, i = i + 1 < table.count ? i + 1 : 0)
        if (is_any(table.rows[i].tag) || begins_with(parts, table.rows[i].tag)) {
            likely = i;
            return &table.rows[i];
        }
    return nullptr;
}

tbs_status_t match_set(parse_state_t *state, const Split &parts, const TagTable &table, uint32_t &likely) {
    if (likely != 0 && !may_begin_anywhere(state, table))
        likely = 0;
    const parse_tag_action_t *row = row_for(parts, table, likely);
    if (row == nullptr)
        return expected_another(state, parts.tag);
    return row->action != nullptr ? row->action(state, parts.tag, parts.value) : tbs_status_t{TBS_ST_OK};
}

} // namespace

tbs_status_t no_memory() {
    trace(subsystem, 1, "%s: no memory\n", module_name);
    return TBS_ST_NO_MEMORY;
}

tbs_status_t parse_new_state(sched_h_t handle, const char *path, parse_state_t **out) {
    with_inhibit([&] {
        *out = static_cast<parse_state_t *>(stg_malloc(sizeof(parse_state_t)));
        if (*out != nullptr)
            memset(static_cast<void *>(*out), 0, sizeof **out);
    });
    if (*out == nullptr)
        return no_memory();
    (*out)->handle = handle;
    const tbs_status_t status = open_file(*out, path);
    if (status != TBS_ST_OK)
        release_state(out);
    return status;
}

void release_state(parse_state_t **state) {
    with_inhibit([&] {
        parse_state_t *released = *state;
        *state = nullptr;
        if (released == nullptr)
            return;
        if (released->is_open)
            released->file.close();
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_sched_notify_info_t), &released->jparse_ni);
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_sched_task_properties_t), &released->task_rec);
        sched_free_job_properties(released->handle, &released->job_rec);
        stg_free(released);
    });
}

tbs_status_t parse_next_line(parse_state_t *state, bool skip_comments, bool eof_allowed) {
    if (state->unget_flag != 0) {
        state->unget_flag = 0;
        return TBS_ST_OK;
    }
    do {
        const FileOutcome outcome = read_line(state);
        if (outcome == FileOutcome::end)
            return eof_allowed ? tbs_status_t{TBS_ST_NOT_FOUND} : refuse(state, SCHED_MSG_UNEXPECTED_EOF);
        if (outcome != FileOutcome::ok)
            return tell_file_error(TBS_MSG_CANNOT_READ, state, outcome);
    } while (skip_comments && is_comment(state));
    ++state->deliveries;
    return TBS_ST_OK;
}

void note_begin(parse_state_t *state) {
    state->exact_text = nullptr;
    if (state->reading != nullptr)
        state->reading->first_line = state->line_no;
}

void note_taken(const parse_state_t *state, uint32_t first_line) {
    if (state->reading != nullptr && state->reading->took != nullptr)
        state->reading->took(state->reading->context, first_line, state->line_no);
}

tbs_status_t parse_unget_cur_line(parse_state_t *state) {
    if (state->unget_flag != 0) {
        tbs_log_int_error(subsystem, &_sched_rvzd_msg_table, SCHED_MSG_MULTILEVEL_UNGET, module_name, __LINE__, 0);
        return TBS_ST_ERROR;
    }
    state->unget_flag = 1;
    return TBS_ST_OK;
}

tbs_status_t parse_cur_match(parse_state_t *state, bool is_required, const char *expected_tag, parse_action_t action) {
    Split parts;
    split(state, parts);
    if (is_any(expected_tag) || is_tag(parts, expected_tag))
        return action != nullptr ? action(state, parts.tag, parts.value) : tbs_status_t{TBS_ST_OK};
    return is_required ? expected_another(state, expected_tag) : parse_unget_cur_line(state);
}

tbs_status_t parse_next_match_set(parse_state_t *state, bool skip_comments, uint32_t count,
                                  const parse_tag_action_t *table) {
    const tbs_status_t status = parse_next_line(state, skip_comments, false);
    if (status != TBS_ST_OK)
        return status;
    Split parts;
    split(state, parts);
    uint32_t first = 0;
    return match_set(state, parts, {count, table}, first);
}

tbs_status_t parse_next_match_set_until(parse_state_t *state, bool skip_comments, uint32_t count,
                                        const parse_tag_action_t *table, const char *end_tag) {
    uint32_t likely = 0;
    while (true) {
        tbs_status_t status = parse_next_line(state, skip_comments, false);
        if (status != TBS_ST_OK)
            return status;
        Split parts;
        split(state, parts);
        if (begins_with(parts, end_tag))
            return TBS_ST_OK;
        status = match_set(state, parts, {count, table}, likely);
        if (status != TBS_ST_OK)
            return status;
    }
}

char *stripped(char *value) {
    return strutl_strip_whitespace(value, 1, 1);
}

tbs_status_t parse_quoted(const parse_state_t *state, char *value, char **out) {
    char *text = stripped(value);
    if (*text == '"') {
        ++text;
        const size_t length = strlen(text);
        if (length == 0 || text[length - 1] != '"')
            return refuse(state, SCHED_MSG_MISSING_QUOTE);
        text[length - 1] = '\0';
    }
    *out = text;
    return TBS_ST_OK;
}

tbs_status_t replace_by_quoted(const parse_state_t *state, char *value, char **text) {
    char *given = nullptr;
    const tbs_status_t status = parse_quoted(state, value, &given);
    if (status != TBS_ST_OK)
        return status;
    const bool is_kept = with_inhibit([&] {
        char *copy = stg_strdup(given);
        if (copy == nullptr)
            return false;
        stg_free(*text);
        *text = copy;
        return true;
    });
    return is_kept ? tbs_status_t{TBS_ST_OK} : no_memory();
}

tbs_status_t parse_get_bool(parse_state_t *state, const char *text, tbs_boolean_t *out) {
    char word[tag_size];
    take_first_word(text, word);
    if (*word == '\0')
        return refuse(state, SCHED_MSG_MISSING_BOOLEAN);
    const bool is_true = strutl_stricoll(word, "TRUE") == 0;
    if (!is_true && strutl_stricoll(word, "FALSE") != 0)
        return refuse(state, SCHED_MSG_ILLEGAL_BOOLEAN, word);
    *out = is_true ? 1 : 0;
    return TBS_ST_OK;
}

tbs_status_t parse_get_date(parse_state_t *state, const char *text, time_t *out) {
    char word[tag_size];
    take_first_word(text, word);
    if (*word == '\0')
        return refuse(state, SCHED_MSG_MISSING_DATE);
    if (strcmp(word, state->date_word) == 0) {
        *out = state->date;
        return TBS_ST_OK;
    }
    if (date_str_to_time(word, out) == 0)
        return refuse(state, SCHED_MSG_ILLEGAL_DATE, word);
    if (strutl_cpy_buf(state->date_word, word, sizeof state->date_word) != 0)
        state->date_word[0] = '\0'; // one that is cut stands for no other
    state->date = *out;
    return TBS_ST_OK;
}

} // namespace velia::sched_utl_parse

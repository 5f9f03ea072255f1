// The actions of the job grammar: what the outer loop and the table of tags need of each other.
#pragma once

#include <rvzd/sched_utl_parse/engine.h>

namespace velia::sched_utl_parse {

tbs_status_t jparse_add_schedule(parse_state_t *state, const char *tag, char *value);
tbs_status_t jparse_add_exact(parse_state_t *state, const char *tag, char *value);
tbs_status_t jparse_add_notify_info(parse_state_t *state, const char *tag, char *value);

// Texts that go beside the jobs. The array begins behind three words: how many elements it has room for, the size of
// one, and where it was taken from. False without storage, and then nothing has changed; `text` moves into the array.
bool add_extra_job_info(char **&infos, uint32_t index, char *text);

} // namespace velia::sched_utl_parse

// Texts that the printers make once and keep.
#include <rvzd/sched_utl/print.h>

#include <cstdio>

#include <common/trace.h>
#include <support/date.h>
#include <support/stg.h>
#include <support/strutl.h>
#include <veliaxdr/sched_print.h>

using namespace velia::sched_utl;

namespace {

constexpr time_t not_yet_known = 0;
constexpr time_t schedule_completed = -1;
constexpr size_t www_size = 512;

char *not_yet_known_str;
char *sched_completed_str;
char *start_date_now_str;
char *bufp;

// The message's text, kept in `text`; `literal` where there is no storage for it.
const char *kept(char *&text, int position, const char *literal) {
    if (text == nullptr) {
        char message[64];
        imsg_sprintf(message, &_sched_rvzd_msg_table, position);
        text = stg_strdup(message);
    }
    return text != nullptr ? text : literal;
}

} // namespace

const char *velia::sched_utl::now_text() {
    return kept(start_date_now_str, SCHED_MSG_NOW, "<now>");
}

const char *sched_utl_next_run_time_to_str(time_t time) {
    switch (time) {
    case not_yet_known:
        return kept(not_yet_known_str, SCHED_MSG_NOT_YET_KNOWN, "<not yet known>");
    case schedule_completed:
        return kept(sched_completed_str, SCHED_MSG_SCHEDULE_COMPLETED, "<schedule completed>");
    default:
        return date_fmt_token_date_time(time);
    }
}

const char *sched_utl_www_to_str(sched_h_t /*handle*/, sched_www_info_t *www) {
    if (bufp == nullptr)
        bufp = static_cast<char *>(stg_malloc(www_size));
    if (bufp == nullptr) {
        velia::trace("scheduler", 1, "%s: no memory\n", "sched_utl_www_to_str");
        return "<no memory>";
    }
    strutl_snprintf(bufp, www_size, "%s by %s@%s", date_fmt_token_date_time(www->when), text_or_empty(www->who),
                    text_or_empty(www->where));
    return bufp;
}

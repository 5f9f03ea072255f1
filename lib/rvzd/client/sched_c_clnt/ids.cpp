// Ids as texts. A text counts by what it begins with.
#include <cstdio>

#include <common/leading_number.h>
#include <veliaxdr/sched_handle.h>
#include <veliaxdr/sched_messages.h>

namespace {

template <class Number>
tbs_status_t read_id(const char *text, int message, Number *id) {
    if (text != nullptr && velia::read_leading_number(text, *id))
        return TBS_ST_OK;
    imsg_print(IMSG_ERROR, &_sched_rvzd_msg_table, message, text != nullptr ? text : "");
    return TBS_ST_ERROR;
}

bool is_id(const char *text) {
    uint32_t id;
    return text != nullptr && velia::read_leading_number(text, id);
}

} // namespace

char *sched_job_id_to_str(sched_h_t /*handle*/, sched_job_id_t id, char *buffer) {
    snprintf(buffer, SCHED_ID_STR_SIZE, "%u", id);
    return buffer;
}

char *sched_task_id_to_str(sched_h_t /*handle*/, sched_task_id_t id, char *buffer) {
    snprintf(buffer, SCHED_ID_STR_SIZE, "%d", static_cast<int32_t>(id));
    return buffer;
}

tbs_status_t sched_job_id_from_str(sched_h_t /*handle*/, const char *text, sched_job_id_t *id) {
    return read_id(text, SCHED_MSG_NO_JOB_ID_TEXT, id);
}

tbs_status_t sched_task_id_from_str(sched_h_t /*handle*/, const char *text, sched_task_id_t *id) {
    return read_id(text, SCHED_MSG_NO_TASK_ID_TEXT, reinterpret_cast<int32_t *>(id));
}

int sched_job_is_id_str(sched_h_t /*handle*/, const char *text) {
    return is_id(text);
}

int sched_task_is_id_str(sched_h_t /*handle*/, const char *text) {
    return is_id(text);
}

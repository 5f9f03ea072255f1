// A notification of a job: three lines in their order.
#include <rvzd/sched_utl_parse/job_grammar.h>

#include <common/with.h>
#include <support/strutl.h>
#include <veliaxdr/sched_check.h>

namespace velia::sched_utl_parse {

namespace {

tbs_status_t jparse_add_notify_events(parse_state_t *state, const char * /*tag*/, char *value) {
    const char *text = stripped(value);
    state->jparse_ni.events = sched_utl_notify_event_mask_from_str(text);
    return state->jparse_ni.events != 0 ? tbs_status_t{TBS_ST_OK} : refuse(state, SCHED_MSG_ILLEGAL_EVENTS, text);
}

tbs_status_t jparse_add_notify_using(parse_state_t *state, const char * /*tag*/, char *value) {
    const char *text = stripped(value);
    state->jparse_ni.delivery = sched_utl_notify_delivery_mask_from_str(text);
    return state->jparse_ni.delivery != 0 ? tbs_status_t{TBS_ST_OK} : refuse(state, SCHED_MSG_ILLEGAL_DELIVERY, text);
}

bool add_recipient(sched_notify_info_t &notification, const char *recipient) {
    return with_inhibit([&] {
        const auto count = static_cast<size_t>(notification.recipient_count);
        if (!make_room(notification.recipients, count))
            return false;
        notification.recipients[count] = stg_strdup(recipient);
        if (notification.recipients[count] == nullptr)
            return false;
        ++notification.recipient_count;
        return true;
    });
}

tbs_status_t jparse_add_notify_recipients(parse_state_t *state, const char * /*tag*/, char *value) {
    constexpr char separator[] = ",";
    for (const char *recipient = strutl_tokenize(stripped(value), separator); recipient != nullptr;
         recipient = strutl_tokenize(nullptr, separator))
        if (!add_recipient(state->jparse_ni, recipient))
            return no_memory();
    return TBS_ST_OK;
}

constexpr ExpectedLine notify_lines[] = {
    {"Job.NotifyInfo.OnEvents:", jparse_add_notify_events},
    {"Job.NotifyInfo.Using:", jparse_add_notify_using},
    {"Job.NotifyInfo.Recipients:", jparse_add_notify_recipients},
};

bool add_notification(sched_job_rw_properties_t &rw, sched_notify_info_t &notification) {
    return with_inhibit([&] {
        if (!make_room(rw.notify, rw.notify_count))
            return false;
        rw.notify[rw.notify_count++] = notification;
        notification = {};
        return true;
    });
}

} // namespace

tbs_status_t jparse_add_notify_info(parse_state_t *state, const char * /*tag*/, char * /*value*/) {
    const tbs_status_t status = parse_lines(state, notify_lines);
    if (status != TBS_ST_OK)
        return status;
    return add_notification(state->job_rec.rw, state->jparse_ni) ? tbs_status_t{TBS_ST_OK} : no_memory();
}

} // namespace velia::sched_utl_parse

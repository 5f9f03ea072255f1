// Jobs, tasks and outcomes, line by line.
#include <rvzd/sched_utl/print.h>

#include <cstring>

#include <support/clp.h>
#include <support/date.h>
#include <support/stg.h>
#include <support/strutl.h>
#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_print.h>
#include <veliaxdr/sched_tasks.h>

using namespace velia::sched_utl;

namespace {

constexpr uint32_t task_name_size = 80;
constexpr int escape_character = 92; // a backslash

void print_name(const char *name) {
    constexpr char tag[] = "Job.Name:";
    if (strutl_find_char_from(name, 0, " \t", nullptr))
        print_quoted(tag, name);
    else
        print_tagged(tag, name);
}

void print_task_of(sched_h_t handle, sched_task_id_t task) {
    constexpr char tag[] = "Job.Task:";
    sched_task_id_str_t id;
    char name[task_name_size] = "";
    print_remark(tag, sched_task_id_to_str(handle, task, id));
    if (sched_task_id_to_name(handle, task, sizeof name, name) == TBS_ST_OK)
        print_quoted(tag, name);
}

constexpr char args_tag[] = "Job.Args:";

void print_args_one_by_one(const sched_job_rw_properties_t &rw) {
    print_message(IMSG_ERROR, SCHED_MSG_CANNOT_GENERATE_PROPERTY, args_tag);
    print_message(IMSG_ERROR, SCHED_MSG_PROBLEM_ARGS);
    for (uint32_t i = 0; i < rw.arg_count; ++i)
        print_message(IMSG_PLAIN, SCHED_MSG_PROBLEM_ARG, static_cast<int>(i), rw.args[i]);
}

tbs_status_t print_args(const sched_job_rw_properties_t &rw) {
    char *text = nullptr;
    if (clp_argv_to_string(rw.arg_count, rw.args, 1, escape_character, &text) != 0) {
        print_args_one_by_one(rw);
        return TBS_ST_ERROR;
    }
    print_tagged(args_tag, text);
    stg_free(text);
    return TBS_ST_OK;
}

void print_recipients(const sched_notify_info_t &notification) {
    print_line("    %s ", "Job.NotifyInfo.Recipients:");
    for (int32_t i = 0; i < notification.recipient_count; ++i)
        print_line(i == 0 ? "%s" : ",%s", text_or_empty(notification.recipients[i]));
    print_line("\n");
}

void print_notification(const sched_notify_info_t &notification) {
    print_tagged("Job.NotifyInfo.OnEvents:", sched_utl_notify_event_mask_to_str(notification.events));
    print_tagged("Job.NotifyInfo.Using:",
                 strutl_flags_to_str(notification.delivery, ",", delivery_mask_flags, SCHED_DELIVERY_MASK_FLAGS));
    print_recipients(notification);
}

tbs_status_t print_rw(sched_h_t handle, sched_job_rw_properties_t &rw) {
    print_name(text_or_empty(rw.name));
    print_block("Job.Description.Begin:", rw.description, "Job.Description.End:");
    print_schedule(handle, rw.schedule);
    print_tagged("Job.DeleteWhenCompleted:", rw.delete_when_completed ? "TRUE" : "FALSE");
    if (rw.run_control.max_run_time != 0)
        print_line("Job.RunControl.MaxRunTime: %d sec\n", static_cast<int>(rw.run_control.max_run_time));
    print_task_of(handle, rw.task);
    const auto status = print_args(rw);
    for (uint32_t i = 0; i < rw.notify_count; ++i)
        print_notification(rw.notify[i]);
    return status;
}

void print_running_status(const sched_running_job_status_t &running) {
    if (running.started == 0)
        return;
    print_tagged("Job.RunningStatus.ProcessId:", text_or_empty(running.process_id));
    print_tagged("Job.RunningStatus.Started:", date_fmt_token_date_time(running.started));
}

void print_ro(sched_h_t handle, sched_schedule_kind_t kind, sched_job_ro_properties_t &ro) {
    print_tagged("Job.Created:", sched_utl_www_to_str(handle, &ro.created));
    print_tagged("Job.LastModified:", sched_utl_www_to_str(handle, &ro.last_modified));
    if (ro.predefined)
        print_tagged("Job.Predefined:", "TRUE");
    print_running_status(ro.running_status);
    if (ro.next_run_time != 0 || kind != SCHED_KIND_SEQUENTIAL)
        print_tagged("Job.NextRunTime:", sched_utl_next_run_time_to_str(ro.next_run_time));
    sched_utl_print_completion_info(handle, 1, &ro.last_completion);
}

// Tags as they stand in a job and in a run.
struct CompletionTags {
    const char *process_id;
    const char *started;
    const char *ended;
    const char *exit_status;
    const char *messages_begin;
    const char *messages_end;
};

constexpr CompletionTags tags_of_job = {
    "Job.LastCompletionInfo.ProcessId:",      "Job.LastCompletionInfo.Started:",
    "Job.LastCompletionInfo.Ended:",          "Job.LastCompletionInfo.ExitStatus:",
    "Job.LastCompletionInfo.Messages.Begin:", "Job.LastCompletionInfo.Messages.End:",
};
constexpr CompletionTags tags_of_run = {
    "RunningJob.CompletionInfo.ProcessId:",      "RunningJob.CompletionInfo.Started:",
    "RunningJob.CompletionInfo.Ended:",          "RunningJob.CompletionInfo.ExitStatus:",
    "RunningJob.CompletionInfo.Messages.Begin:", "RunningJob.CompletionInfo.Messages.End:",
};

} // namespace

void velia::sched_utl::print_block(const char *begin_tag, const char *text, const char *end_tag) {
    const size_t length = strlen(text_or_empty(text));
    if (length == 0)
        return;
    print_line("    %s\n", begin_tag);
    imsg_print(IMSG_PLAIN, &_tbs_cmsg_tbs_msg_table, TBS_MSG_TEXT, text);
    if (text[length - 1] != '\n')
        imsg_print(IMSG_PLAIN, &_tbs_cmsg_tbs_msg_table, TBS_MSG_LINE, "");
    print_line("    %s\n", end_tag);
}

tbs_status_t sched_utl_print_job_props(sched_h_t handle, sched_job_properties_t *props) {
    sched_job_id_str_t id;
    print_line("%s\n", "Job.Begin");
    print_remark("Job.Id:", sched_job_id_to_str(handle, props->ro.job_id, id));
    const auto status = print_rw(handle, props->rw);
    print_ro(handle, props->rw.schedule.kind, props->ro);
    print_line("%s\n", "Job.End");
    return status;
}

tbs_status_t sched_utl_print_completion_info(sched_h_t /*handle*/, int as_job, sched_job_completion_info_t *info) {
    const CompletionTags &tags = as_job != 0 ? tags_of_job : tags_of_run;
    if (info->started == 0)
        return TBS_ST_OK;
    print_tagged(tags.process_id, text_or_empty(info->process_id));
    print_tagged(tags.started, date_fmt_token_date_time(info->started));
    if (info->ended == 0)
        return TBS_ST_OK;
    print_tagged(tags.ended, date_fmt_token_date_time(info->ended));
    print_line("    %s 0x%x\n", tags.exit_status, info->exit_status);
    print_block(tags.messages_begin, info->messages, tags.messages_end);
    return TBS_ST_OK;
}

tbs_status_t sched_utl_print_task_properties(sched_task_properties_t *task) {
    print_line("%s\n", "Task.Begin");
    print_number("Task.Id:", task->task_id);
    print_quoted("Task.Name:", text_or_empty(task->name));
    print_quoted("Task.Pathname:", text_or_empty(task->pathname));
    if (*text_or_empty(task->ui.ui_info) != '\0')
        print_quoted("Task.UIInfo:", task->ui.ui_info);
    if (task->run_as.user != CREDUTL_NO_ID) {
        char text[CREDUTL_TEXT_SIZE];
        print_tagged("Task.RunAsCredentials:", credutl_credentials_to_str(&task->run_as, text));
    }
    print_line("%s\n", "Task.End");
    return TBS_ST_OK;
}

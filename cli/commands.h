// All commands of the program. Each file of commands has its rows here.
#pragma once

#include <string>

#include <cli/parser.h>

namespace velia::cli {

extern const Commands contact_commands;
extern const Commands probe_commands;
extern const Commands server_commands;
extern const Commands server_list_commands;
extern const Commands registry_commands;
extern const Commands registry_update_commands;
extern const Commands registry_transfer_commands;
extern const Commands registry_watch_commands;
extern const Commands registry_apply_commands;
extern const Commands registry_admin_commands;
extern const Commands registry_role_commands;
extern const Commands registry_site_commands;
extern const Commands registry_save_commands;
extern const Commands registry_move_commands;
extern const Commands site_commands;
extern const Commands daemon_commands;
extern const Commands doctor_commands;
extern const Commands object_commands;
extern const Commands host_commands;
extern const Commands time_zone_commands;
extern const Commands pool_map_commands;
extern const Commands knob_commands;
extern const Commands knob_update_commands;
extern const Commands knob_transfer_commands;
extern const Commands knob_monitor_commands;
extern const Commands acl_commands;
extern const Commands job_commands;
extern const Commands job_create_commands;
extern const Commands job_run_commands;
extern const Commands job_check_commands;
extern const Commands job_load_commands;
extern const Commands job_list_commands;
extern const Commands job_edit_commands;
extern const Commands completion_commands;
extern const Commands complete_words_commands;

// What the common options set.
struct CommonArguments {
    std::string format = "plain";
    bool leaves_headers_out = false;
    Duration timeout = Settings().timeout;
    View view;
};

// All of them, in the order of the help.
Program whole_program(CommonArguments &common);

// Takes the line apart and runs its command.
int run(int argc, char **argv);

} // namespace velia::cli

// The command line as a whole.
#include <cli/commands.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include <cli/messages.h>
#include <cli/streams.h>
#include <cli/view.h>
#include <cli/waits.h>
#include <support/imsg.h>
#include <veliaxdr/libveliaxdr.h>

namespace velia::cli {

namespace {

constexpr Range timeout_range = {1, 3600 * 1000};

std::string fault_of_format(const std::string &name) {
    Format format;
    return format_of_name(name, format) ? "" : "must be plain, json, jsonl or table, not '" + name + "'";
}

std::string version_line() {
    char line[LIBVELIAXDR_VERID_SIZE] = "";
    if (libveliaxdr_sprintf_verid(line) < 0)
        return "unknown version";
    std::string text = line;
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

std::vector<Command> all_commands() {
    std::vector<Command> all;
    for (const Commands &rows : {contact_commands,
                                 probe_commands,
                                 server_commands,
                                 server_list_commands,
                                 registry_commands,
                                 registry_update_commands,
                                 registry_transfer_commands,
                                 registry_apply_commands,
                                 registry_watch_commands,
                                 registry_admin_commands,
                                 registry_role_commands,
                                 registry_site_commands,
                                 registry_save_commands,
                                 registry_move_commands,
                                 site_commands,
                                 daemon_commands,
                                 doctor_commands,
                                 object_commands,
                                 host_commands,
                                 time_zone_commands,
                                 pool_map_commands,
                                 knob_commands,
                                 knob_update_commands,
                                 knob_transfer_commands,
                                 knob_monitor_commands,
                                 job_commands,
                                 job_create_commands,
                                 job_run_commands,
                                 job_check_commands,
                                 job_load_commands,
                                 job_list_commands,
                                 job_edit_commands,
                                 acl_commands,
                                 completion_commands,
                                 complete_words_commands})
        all.insert(all.end(), rows.begin(), rows.end());
    return all;
}

Options common_options(CommonArguments &arguments) {
    return {
        {.name = "-o,--output",
         .type = "FORM",
         .help = "form of the results: plain, json, jsonl or table (default plain)",
         .target = &arguments.format,
         .words = format_names,
         .fault = fault_of_format},
        {.name = "--no-headers", .help = "leave the line of column names out", .target = &arguments.leaves_headers_out},
        {.name = "--timeout",
         .type = "SECONDS",
         .help = "seconds to wait in silence, as 25 or 0.5",
         .target = &arguments.timeout,
         .range = timeout_range,
         .shows_default = true},
    };
}

// What is given of it elsewhere, for all commands.
std::string format_elsewhere(const Program &program) {
    try {
        for (const auto &source : program.sources)
            if (const auto given = source("", program.common.front()); given && !given->values.empty())
                return given->values[0];
    } catch (const SourceFault &) { // is what the line is refused for, or will be
    }
    return "";
}

// The form that a line asks for, though it may be wrong in something else; the last one counts.
std::string format_in(const Program &program, const std::vector<std::string> &words) {
    std::string format = format_elsewhere(program);
    for (size_t i = 0; i < words.size(); ++i)
        for (const std::string option : {"--output", "-o"}) {
            const std::string attached = option == "-o" ? option : option + "=";
            if (words[i] == option && i + 1 < words.size())
                format = words[i + 1];
            else if (words[i].starts_with(attached) && words[i] != option)
                format = words[i].substr(attached.size());
        }
    return format;
}

int refuse(const Program &program, const std::vector<std::string> &words, const std::string &fault,
           const std::string &told) {
    Format format = Format::plain;
    format_of_name(format_in(program, words), format);
    if (is_json(format)) {
        tell_in_json();
        tell_failure(TBS_ST_INVALID_ARG, "", "%s\n", fault.c_str());
    } else {
        std::cerr << told;
    }
    return exit_usage;
}

// What is wrong with it, or with nothing the options that it needs are given.
std::string settle_view(View &view, const Line &line) {
    if (line.output == nullptr)
        return "";
    std::string fault = fault_of_view(view, *line.output);
    if (fault.empty())
        give_options_for(view, *line.output, line.call->options());
    return fault;
}

int run_line(const std::vector<std::string> &words) {
    CommonArguments common;
    const Program program = whole_program(common);
    std::ostringstream errors;
    const Line line = parse(program, words, std::cout, errors);
    if (line.call == nullptr)
        return line.status == exit_done ? exit_done : refuse(program, words, line.fault, errors.str());
    if (const std::string fault = settle_view(common.view, line); !fault.empty())
        return refuse(program, words, fault, failure_text(program.name, fault));
    Settings settings = {Format::plain, !common.leaves_headers_out, common.timeout, common.view};
    format_of_name(common.format, settings.format); // checked by the parser
    if (is_json(settings.format))
        tell_in_json();
    const Waits waits(settings.timeout);
    return waits.status(line.call->run(settings));
}

} // namespace

Program whole_program(CommonArguments &common) {
    const auto commands = all_commands();
    const auto options = common_options(common);
    const MoreOptions more = [&common](const Command &row, const Options &own) {
        return view_options(common.view, row, own);
    };
    return {"veliactl",
            "Asks and administers the services of a site.",
            version_line(),
            commands,
            options,
            std::max(columns_of_results().value_or(help_width_usual), help_width_least),
            {environment(), configuration_file(configuration_path(), commands, options, more)},
            more};
}

int run(int argc, char **argv) {
    imsg_set_app_name("veliactl");
    const ResultsStream results;
    const int status = run_line({argv + std::min(argc, 1), argv + argc});
    return flush_results() ? status : exit_failed;
}

} // namespace velia::cli

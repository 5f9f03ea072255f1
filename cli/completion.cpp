// veliactl completion: the script that lets a shell complete veliactl's words.
#include <cli/completion.h>

#include <iostream>
#include <memory>

#include <cli/choices.h>
#include <cli/commands.h>

namespace velia::cli {

namespace {

constexpr const char *footer = R"(Examples:
  source <(veliactl completion bash)
  veliactl completion bash > ~/.local/share/bash-completion/completions/veliactl
  veliactl completion zsh > ~/.zfunc/_veliactl   # with ~/.zfunc in $fpath

An installed package has both scripts where the shells look for them.
)";

} // namespace

// It has none of the common options: what it prints is a script, in whatever form results are wanted otherwise.
void add_completion_command(CLI::App &app, Settings & /*settings*/, Command &chosen) {
    auto shell = std::make_shared<std::string>();
    CLI::App *command = app.add_subcommand("completion", "Print the script by which a shell completes these commands");
    command->add_option("SHELL", *shell, "bash or zsh")->type_name("")->required()->check(one_of({"bash", "zsh"}));
    command->footer(std::string(footer) + "\n" + exit_status_help);
    command->callback([&app, shell, &chosen] {
        chosen = [&app, shell](const Settings &) {
            const auto commands = words_of_tree(app);
            std::cout << (*shell == "bash" ? bash_script(commands) : zsh_script(commands));
            return std::cout.flush() ? exit_done : exit_failed;
        };
    });
}

} // namespace velia::cli

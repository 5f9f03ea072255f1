// veliactl completion: the script that lets a shell complete veliactl's words.
#include <cli/completion.h>

#include <iostream>

#include <cli/commands.h>

namespace velia::cli {

namespace {

struct Arguments {
    std::string shell;
};

constexpr const char *shells[] = {"bash", "zsh", "fish"};

Options options_of(Arguments &arguments) {
    return {{.name = "SHELL",
             .help = "bash, zsh or fish",
             .target = &arguments.shell,
             .words = shells,
             .is_required = true}};
}

int print_script(const Arguments &arguments, const Settings &settings);

// It has none of the common options: what it prints is a script, in whatever form results are wanted otherwise.
constexpr Command commands[] = {
    {.path = "completion",
     .help = "Print the script by which a shell completes these commands",
     .examples = {"source <(veliactl completion bash)",
                  "veliactl completion bash > ~/.local/share/bash-completion/completions/veliactl",
                  "veliactl completion zsh > ~/.zfunc/_veliactl   # with ~/.zfunc in $fpath",
                  "veliactl completion fish > ~/.config/fish/completions/veliactl.fish"},
     .notes = "An installed package has all of them where the shells look for them.\n",
     .make = call_of<print_script, options_of>,
     .has_common_options = false},
};

int print_script(const Arguments &arguments, const Settings & /*settings*/) {
    CommonArguments common;
    const auto words = words_of_program(whole_program(common));
    const auto script = arguments.shell == "bash" ? bash_script : arguments.shell == "zsh" ? zsh_script : fish_script;
    std::cout << script(words);
    return exit_done;
}

} // namespace

const Commands completion_commands = commands;

} // namespace velia::cli

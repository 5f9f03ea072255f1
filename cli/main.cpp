// veliactl, the administrator's tool.
#include <exception>
#include <iostream>

#include <cli/commands.h>

int main(int argc, char **argv) {
    try {
        return velia::cli::run(argc, argv);
    } catch (const std::exception &error) {
        std::cerr << "veliactl: Error: " << error.what() << '\n';
        return velia::cli::exit_failed;
    }
}

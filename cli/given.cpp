// Names of options elsewhere, and the environment.
#include <cli/given.h>

#include <cctype>
#include <cstdlib>
#include <sstream>

namespace velia::cli {

namespace {

constexpr const char *variable_prefix = "VELIACTL_";
constexpr const char *file_name = "/veliactl.toml";

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

} // namespace

std::string key_of(const Option &option) {
    for (const auto &name : names_of(option))
        if (name.starts_with("--"))
            return name.substr(2);
    return "";
}

std::string variable_of(const Option &option) {
    std::string name = variable_prefix;
    for (const char c : key_of(option))
        name += c == '-' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return name;
}

Source environment() {
    return [](const std::string & /*path*/, const Option &option) -> std::optional<Given> {
        const std::string name = variable_of(option);
        const char *value = std::getenv(name.c_str());
        if (value == nullptr || *value == '\0')
            return std::nullopt;
        const bool is_list = std::holds_alternative<std::vector<std::string> *>(option.target);
        return Given{is_list ? lines_of(value) : std::vector<std::string>{value}, name};
    };
}

// A relative XDG_CONFIG_HOME counts as none: what a command does must not depend on where it is called.
std::string configuration_path() {
    const char *folder = std::getenv("XDG_CONFIG_HOME");
    if (folder != nullptr && *folder == '/')
        return std::string(folder) + file_name;
    const char *home = std::getenv("HOME");
    return home != nullptr && *home == '/' ? std::string(home) + "/.config" + file_name : "";
}

} // namespace velia::cli

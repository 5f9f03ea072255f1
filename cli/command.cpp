// What the rows of all commands use.
#include <cli/command.h>

namespace velia::cli {

bool is_switch(const Option &option) {
    return std::holds_alternative<bool *>(option.target);
}

std::vector<std::string> names_of(const Option &option) {
    std::vector<std::string> names;
    const std::string all = option.name;
    for (size_t at = 0, end = 0; end != std::string::npos; at = end + 1) {
        end = all.find(',', at);
        names.push_back(all.substr(at, end - at));
    }
    return names;
}

Options no_options(NoArguments & /*arguments*/) {
    return {};
}

GroupAndName group_and_name(const Command &command) {
    const std::string path = command.path;
    const auto blank = path.rfind(' ');
    return blank == std::string::npos ? GroupAndName{"", path}
                                      : GroupAndName{path.substr(0, blank), path.substr(blank + 1)};
}

Options joined(std::initializer_list<Options> lists) {
    Options all;
    for (const auto &list : lists)
        all.insert(all.end(), list.begin(), list.end());
    return all;
}

std::string joined(const std::vector<std::string> &texts, const char *separator) {
    std::string all;
    for (const auto &text : texts)
        all += (&text == texts.data() ? "" : separator) + text;
    return all;
}

} // namespace velia::cli

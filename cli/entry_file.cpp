#include <cli/entry_file.h>

#include <cerrno>
#include <fstream>
#include <iostream>

#include <sys/stat.h>

#include <cli/command.h>
#include <cli/messages.h>
#include <support/imsg.h>

namespace velia::cli {

namespace {

constexpr size_t line_bytes_max = 65536;

int tell_line(const std::string &file, uint64_t line, const std::string &why) {
    tell_failure(TBS_ST_INVALID_ARG, "", "%s:%llu: %s\n", file.c_str(), static_cast<unsigned long long>(line),
                 why.c_str());
    return exit_failed;
}

// Every line is looked at, so that all faults are told at once.
int read_entries(const std::string &file, std::istream &in, EntriesOfDbs &entries) {
    std::vector<char> buffer(line_bytes_max);
    int status = exit_done;
    uint64_t line = 0;
    while (in.getline(buffer.data(), static_cast<std::streamsize>(buffer.size()))) {
        ++line;
        const std::string text = buffer.data();
        std::string why;
        if (text.find_first_not_of(" \t\r") == std::string::npos)
            continue;
        if (auto entry = entry_of_line(text, why))
            entries[entry->db].push_back({std::move(*entry), line});
        else
            status = tell_line(file, line, why);
    }
    if (in.bad())
        return tell_file_trouble(file, "read");
    return in.eof() ? status : tell_line(file, line + 1, "the line is too long");
}

} // namespace

int tell_file_trouble(const std::string &file, const char *what) {
    tell_failure(TBS_ST_ERROR, "", "'%s' cannot be %s: %s\n", file.c_str(), what, imsg_strerror(errno));
    return exit_failed;
}

int read_entry_file(const std::string &file, EntriesOfDbs &entries) {
    if (file == "-")
        return read_entries("standard input", std::cin, entries);
    struct stat status = {};
    errno = 0;
    if (stat(file.c_str(), &status) != 0)
        return tell_file_trouble(file, "read");
    if (!S_ISREG(status.st_mode)) {
        tell_failure(TBS_ST_INVALID_ARG, "", "'%s' cannot be read: it is no file\n", file.c_str());
        return exit_failed;
    }
    std::ifstream in(file, std::ios::binary);
    return in ? read_entries(file, in, entries) : tell_file_trouble(file, "read");
}

} // namespace velia::cli

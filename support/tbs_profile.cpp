// The user's profile: options that a user wants given to commands.
#include <support/tbs.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <support/pfm.h>
#include <support/stg.h>

#include "refused_file.h"
#include "words.h"

using namespace velia;

namespace {

constexpr FileBounds profile_bounds = {configuration_file.file_bytes, text_line_bytes_max};

bool profile_path(char *path, size_t size) {
    const char *named = getenv("VELIA_PROFILE");
    const char *home = getenv("HOME");
    int length = -1;
    if (named != nullptr && *named != '\0')
        length = snprintf(path, size, "%s", named);
    else if (home != nullptr && *home != '\0')
        length = snprintf(path, size, "%s/.velia_profile", home);
    return length >= 0 && static_cast<size_t>(length) < size;
}

void cut_trailing_blanks(char *text) {
    size_t length = strlen(text);
    while (length > 0 && strchr(blanks, text[length - 1]) != nullptr)
        text[--length] = '\0';
}

// On a match stores what follows the option.
bool line_gives(char *line, const char *command, const char *option, char **argument) {
    if (*line == '#')
        return false;
    const char *line_command = next_word(&line);
    if (line_command == nullptr || strcmp(line_command, command) != 0)
        return false;
    const char *line_option = next_word(&line);
    if (line_option == nullptr || strcmp(line_option, option) != 0)
        return false;
    line += strspn(line, blanks);
    cut_trailing_blanks(line);
    *argument = *line != '\0' ? stg_strdup(line) : nullptr;
    return true;
}

// A line that is too long is passed over whole.
FileOutcome find_line(TextFile &file, const char *command, const char *option, char **argument) {
    FileOutcome outcome;
    for (TextLine line; (outcome = file.next_line(line)) == FileOutcome::ok || outcome == FileOutcome::line_too_long;) {
        if (outcome == FileOutcome::line_too_long)
            file.skip_line();
        else if (line_gives(line.text, command, option, argument))
            return FileOutcome::ok;
    }
    return outcome;
}

} // namespace

int tbs_check_profile(const char *command, const char *option, char **argument) {
    *argument = nullptr;
    char path[TBS_PATH_SIZE];
    if (!profile_path(path, sizeof path))
        return 0;
    TextFile profile;
    pfm_inhibit();
    FileOutcome outcome = profile.open(path, profile_bounds);
    if (outcome == FileOutcome::ok) {
        outcome = find_line(profile, command, option, argument);
        profile.close();
    }
    if (is_refused(outcome))
        support::print_refused_file(path, profile, outcome);
    pfm_enable();
    return outcome == FileOutcome::ok ? 1 : 0;
}

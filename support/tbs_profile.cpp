// The user's profile: options that a user wants given to commands.
#include <support/tbs.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <support/stg.h>

namespace {

constexpr char blanks[] = " \t\r\n";

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

// Takes the next word off `*at`; null at the end of the line.
char *next_word(char **at) {
    *at += strspn(*at, blanks);
    if (**at == '\0')
        return nullptr;
    char *word = *at;
    *at += strcspn(*at, blanks);
    if (**at != '\0')
        *(*at)++ = '\0';
    return word;
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

} // namespace

int tbs_check_profile(const char *command, const char *option, char **argument) {
    *argument = nullptr;
    char path[TBS_PATH_SIZE];
    if (!profile_path(path, sizeof path))
        return 0;
    FILE *profile = fopen(path, "re");
    if (profile == nullptr)
        return 0;
    char *line = nullptr;
    size_t line_size = 0;
    bool found = false;
    while (!found && getline(&line, &line_size, profile) >= 0)
        found = line_gives(line, command, option, argument);
    free(line);
    fclose(profile);
    return found ? 1 : 0;
}

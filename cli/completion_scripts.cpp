// A script is two tables, written as cases of a shell function, and a fixed part that walks the words typed so far
// through them. It does not run the program but for the names of hosts: completing must be quick, and work where
// nothing else does.
#include <cli/completion.h>

#include <algorithm>
#include <cctype>

#include <fmt/core.h>

namespace velia::cli {

namespace {

using Texts = std::vector<std::string>;

constexpr const char *bash_head = R"script(# Completion of veliactl for bash, made by "veliactl completion bash".
)script";
constexpr const char *bash_engine = R"script(
# Joins what bash has cut at "=" and ":", and leaves the words up to the cursor in `typed`.
_veliactl_join() {
    local word joins=''
    for word in "${COMP_WORDS[@]:0:COMP_CWORD+1}"; do
        if [[ ${#typed[@]} -gt 0 && ( -n $joins || $word == [=:]* ) ]]; then
            typed[${#typed[@]}-1]+=$word
        else
            typed+=("$word")
        fi
        joins=''
        [[ $word == *[=:] ]] && joins=yes
    done
}

_veliactl() {
    local -a typed=()
    local below valued flags offered kind word current command='' awaited='' place=0 places=0 repeats=0
    _veliactl_join
    current=${typed[${#typed[@]}-1]}
    _veliactl_command ''
    for word in "${typed[@]:1:${#typed[@]}-2}"; do
        if [[ -n $awaited ]]; then
            awaited=''
        elif [[ $word == -* ]]; then
            [[ " $valued " == *" $word "* ]] && awaited=$word
        elif [[ " $below " == *" $word "* ]]; then
            command=${command:+$command }$word place=0
            _veliactl_command "$command"
        else
            place=$((place + 1))
        fi
    done
    if [[ -z $awaited && $current == --*=* ]]; then
        awaited=${current%%=*} current=${current#*=}
    fi
    COMPREPLY=()
    if [[ -n $awaited ]]; then
        _veliactl_value "$command|$awaited"
    elif [[ $current == -* ]]; then
        kind='' offered="$valued $flags"
    elif [[ -n $below ]]; then
        kind='' offered=$below
    else
        place=$((place < places ? place + 1 : repeats * places))
        _veliactl_value "$command|$place"
    fi
    case $kind in
    files)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        ;;
    hosts)
        mapfile -t COMPREPLY < <({
            compgen -A hostname -- "$current"
            compgen -W "$(veliactl complete-words hosts 2>/dev/null)" -- "$current"
        } | sort -u)
        ;;
    beginnings)
        compopt -o nospace 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -W "$offered" -- "$current")
        ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$offered" -- "$current") ;;
    esac
    if [[ ${#COMPREPLY[@]} -eq 0 && -z $awaited && -z $current ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$valued $flags")
    fi
}

complete -F _veliactl veliactl
)script";

constexpr const char *zsh_head = R"script(#compdef veliactl
# Completion of veliactl for zsh, made by "veliactl completion zsh".
)script";
constexpr const char *zsh_engine = R"script(
_veliactl() {
    local command='' awaited='' kind word
    local -i place=0 places=0 repeats=0
    local -a below valued flags offered
    _veliactl_command ''
    for word in "${(@)words[2,CURRENT-1]}"; do
        if [[ -n $awaited ]]; then
            awaited=''
        elif [[ $word == -* ]]; then
            (( ${valued[(I)${(b)word}:*]} )) && awaited=$word
        elif (( ${below[(I)${(b)word}:*]} )); then
            command=${command:+$command }$word place=0
            _veliactl_command "$command"
        else
            (( place += 1 ))
        fi
    done
    if [[ -z $awaited && $PREFIX == --*=* ]]; then
        awaited=${PREFIX%%=*}
        compset -P '*='
    fi
    if [[ -n $awaited ]]; then
        _veliactl_value "$command|$awaited"
    elif [[ $PREFIX == -* ]]; then
        _describe -o option valued -- flags
        return
    elif (( $#below )); then
        _describe command below
        return
    else
        place=$(( place < places ? place + 1 : repeats * places ))
        _veliactl_value "$command|$place"
    fi
    case $kind in
    files) _files ;;
    hosts)
        compadd -- ${(f)"$(veliactl complete-words hosts 2>/dev/null)"}
        _hosts
        ;;
    words) compadd -- $offered ;;
    beginnings) compadd -S '' -- $offered ;;
    *) [[ -n $awaited ]] || _describe -o option valued -- flags ;;
    esac
}

if [[ $funcstack[1] == _veliactl ]]; then
    _veliactl "$@"
else
    compdef _veliactl veliactl
fi
)script";

std::string quoted(const std::string &text) {
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

// How a shell writes a list of words, each with a help text that only one of them shows.
using ListOf = std::string (*)(const std::vector<Subcommand> &);

std::string bash_list(const std::vector<Subcommand> &words) {
    Texts names;
    for (const auto &word : words)
        names.push_back(word.name);
    return quoted(joined(names, " "));
}

std::string zsh_list(const std::vector<Subcommand> &words) {
    Texts entries;
    for (const auto &word : words)
        entries.push_back(quoted(word.name + ":" + word.help));
    return "(" + joined(entries, " ") + ")";
}

std::vector<Subcommand> options_of(const CommandWords &command, bool takes_value) {
    std::vector<Subcommand> words;
    for (const auto &option : command.options)
        for (const auto &name : option.names)
            if ((option.value.kind != Value::Kind::none) == takes_value)
                words.push_back({name, option.help});
    return words;
}

std::string command_cases(const std::vector<CommandWords> &commands, ListOf list) {
    std::string cases;
    for (const auto &command : commands)
        cases +=
            fmt::format("    {}) below={} valued={} flags={} places={} repeats={} ;;\n", quoted(command.path),
                        list(command.subcommands), list(options_of(command, true)), list(options_of(command, false)),
                        command.positionals.size(), command.repeats_last ? 1 : 0);
    return fmt::format("\n# What may follow a command.\n_veliactl_command() {{\n    case $1 in\n{}    esac\n}}\n",
                       cases);
}

std::string value_case(const std::string &command, const Texts &names, const Value &value,
                       const std::string &words_form) {
    Texts patterns;
    for (const auto &name : names)
        patterns.push_back(quoted(fmt::format("{}|{}", command, name)));
    const std::string pattern = joined(patterns, " | ");
    const char *kind = word_of_kind(value.kind);
    if (kind == nullptr)
        return "";
    if (value.words.empty())
        return fmt::format("    {}) kind={} ;;\n", pattern, kind);
    return fmt::format("    {}) kind={} offered={} ;;\n", pattern, kind,
                       fmt::format(fmt::runtime(words_form), joined(value.words, " ")));
}

std::string value_cases(const std::vector<CommandWords> &commands, const std::string &words_form) {
    std::string cases;
    for (const auto &command : commands) {
        for (const auto &option : command.options)
            cases += value_case(command.path, option.names, option.value, words_form);
        for (size_t i = 0; i < command.positionals.size(); ++i)
            cases += value_case(command.path, {std::to_string(i + 1)}, command.positionals[i], words_form);
    }
    return fmt::format("\n# What may stand as the value of an option, or at a place behind a command.\n"
                       "_veliactl_value() {{\n    kind='' offered={}\n    case $1 in\n{}    esac\n}}\n",
                       fmt::format(fmt::runtime(words_form), ""), cases);
}

} // namespace

const char *word_of_kind(Value::Kind kind) {
    switch (kind) {
    case Value::Kind::words:
        return "words";
    case Value::Kind::beginnings:
        return "beginnings";
    case Value::Kind::files:
        return "files";
    case Value::Kind::hosts:
        return "hosts";
    default:
        return nullptr;
    }
}

bool is_safe_word(const std::string &word) {
    return !word.empty() && word[0] != '-' && std::all_of(word.begin(), word.end(), [](char c) {
        return isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' || c == '_' || c == ':';
    });
}

std::string bash_script(const std::vector<CommandWords> &commands) {
    return bash_head + command_cases(commands, bash_list) + value_cases(commands, "'{}'") + bash_engine;
}

std::string zsh_script(const std::vector<CommandWords> &commands) {
    return zsh_head + command_cases(commands, zsh_list) + value_cases(commands, "({})") + zsh_engine;
}

} // namespace velia::cli

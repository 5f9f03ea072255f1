// The role that this host plays as a registry server: one word in a file, which is rewritten in place.
#include <veliaxdr/rgy_local.h>

#include <common/text_file.h>
#include <rvzd/client/registry_clnt/local/local_files.h>
#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <support/strutl.h>
#include <veliaxdr/rgy_messages.h>

using namespace velia;
using namespace velia::registry_clnt;

const rgy_svrtype_t rgy_svrtype_table[6] = {
    {"not a server", RGY_SVR_NONE}, {"master", RGY_SVR_MASTER},   {"slave", RGY_SVR_SLAVE},
    {"backup", RGY_SVR_BACKUP},     {"standby", RGY_SVR_STANDBY}, {nullptr, 0},
};

namespace {

constexpr char role_file[] = "rgy_svr.conf";
constexpr size_t type_size = 32;
constexpr FileBounds role_bounds = {configuration_file.file_bytes, text_line_bytes_max};

void print_error(int position, const char *path) {
    imsg_print(IMSG_ERROR, &_registry_rvzd_msg_table, position, path);
}

// The system's failures have had their words; a file that is refused needs some that say why.
void print_trouble_loading(const char *path, const TextFile &file, FileOutcome outcome) {
    char words[file_words_size];
    print_error(REGISTRY_MSG_TROUBLE_LOADING_SERVER_FILE, path);
    if (is_refused(outcome))
        imsg_print_shared(IMSG_CONTINUATION, subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_CANNOT_READ, path,
                          file.why(outcome, words));
}

// The first word of the file, or as much of it as there is room for.
bool take_word(TextFile &file, char (&word)[type_size]) {
    TextLine line;
    FileOutcome outcome;
    while ((outcome = file.next_line(line)) == FileOutcome::ok || outcome == FileOutcome::line_too_long) {
        const char *begin = line.text + strspn(line.text, white_space);
        const size_t length = strcspn(begin, white_space);
        if (length > 0) {
            strutl_ncpy(word, begin, length < type_size ? length : type_size - 1);
            return true;
        }
    }
    return false;
}

// Opened for writing, too: a process that may not change the role does not see it either. No file is no role.
void read_type(const char *path, char (&word)[type_size]) {
    TextFile file;
    const FileOutcome outcome = file.open(path, role_bounds, O_RDWR);
    if (outcome != FileOutcome::ok) {
        if (tbs_errno2status(file.error_number()) != TBS_ST_NOT_SET)
            print_trouble_loading(path, file, outcome);
        return;
    }
    const bool has_word = take_word(file, word);
    file.close();
    if (!has_word)
        print_error(REGISTRY_MSG_INVALID_CONFIG_FILE, path);
}

const rgy_svrtype_t *row_of(const char *text) {
    for (const auto *row = rgy_svrtype_table; row->text != nullptr; ++row)
        if (strcmp(row->text, text) == 0)
            return row;
    return nullptr;
}

tbs_status_t rgy_write_conf(const char *path, const char *text) {
    return with_inhibit([&]() -> tbs_status_t {
        const int error_number = strutl_write(text, path, 0, 0);
        if (error_number == 0)
            return TBS_ST_OK;
        print_error(REGISTRY_MSG_INVALID_CONFIG_FILE, path);
        return tbs_errno2status(error_number);
    });
}

} // namespace

// "not a server" is two words and one is read, so that file reads as no type, which is the same.
char *rgy_get_svr_type_str(void) {
    return with_inhibit([] {
        char path[path_size];
        char word[type_size] = "";
        tbs_product_host_config_dir(path, role_file);
        read_type(path, word);
        void *text = stg_malloc(type_size);
        return text != nullptr ? static_cast<char *>(memcpy(text, word, type_size)) : nullptr;
    });
}

int32_t rgy_get_svr_type(void) {
    return with_inhibit([] {
        char *text = rgy_get_svr_type_str();
        const rgy_svrtype_t *row = text != nullptr ? row_of(text) : nullptr;
        stg_free(text);
        return row != nullptr ? row->value : int32_t{RGY_SVR_NONE};
    });
}

tbs_status_t rgy_set_svr_type(int32_t type) {
    if (type < RGY_SVR_NONE || type > RGY_SVR_STANDBY)
        return TBS_ST_NOT_FOUND;
    char path[path_size];
    tbs_product_host_config_dir(path, role_file);
    const char *text = rgy_svrtype_table[type].text;
    const auto status = rgy_write_conf(path, text);
    if (status != TBS_ST_OK) {
        print_error(REGISTRY_MSG_INVALID_CONFIG_FILE, path);
        return status;
    }
    imsg_print(IMSG_PLAIN, &_registry_rvzd_msg_table, REGISTRY_MSG_SERVER_TYPE, text);
    return TBS_ST_OK;
}

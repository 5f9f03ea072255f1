// The two files of two words each: the registry hosts and the regions of this host.
#include <rvzd/client/registry_clnt/local/local_files.h>

#include <cerrno>

#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <support/fileutl.h>
#include <support/imsg.h>
#include <support/strutl.h>
#include <veliaxdr/rgy_local.h>

using namespace velia;
using namespace velia::registry_clnt;

ivlthread_mutex_t velia::registry_clnt::rgy_prop_local_mutex;

namespace {

void make_paths_anew();

} // namespace

ForkWatch velia::registry_clnt::prop_local_watch = {rgy_prop_local_mutex, make_paths_anew};

namespace {

constexpr char hosts_file[] = "rgy_hosts.conf";
constexpr char region_file[] = "rgy_region.conf";
constexpr size_t host_word_size = 64;
constexpr size_t region_word_size = 48;
constexpr size_t longest_word_size = host_word_size;

char hosts_path[path_size];
char region_path[path_size];
char *registry_process_default_region;

// The region is exchanged in one step, and so it is whole.
void make_paths_anew() {
    *hosts_path = '\0';
    *region_path = '\0';
}

// A path is made once and stays.
const char *path_once(char *path, const char *name) {
    return with_lock(prop_local_lock, [&]() -> const char * {
        if (*path == '\0')
            tbs_product_host_config_dir(path, name);
        return path;
    });
}

struct TwoWords {
    char first[longest_word_size];
    char second[longest_word_size];
};

// Takes the next word of `text` into `word`; false, with nothing copied, if it does not fit `size`.
bool take_word(const char *&text, char *word, size_t size) {
    text += strspn(text, white_space);
    const size_t length = strcspn(text, white_space);
    if (length >= size)
        return false;
    memcpy(word, text, length);
    word[length] = '\0';
    text += length;
    return true;
}

tbs_status_t read_words(const char *path, size_t word_size, TwoWords &words) {
    return with_inhibit([&]() -> tbs_status_t {
        char *contents = strutl_read(1, path, 0, 1, nullptr);
        if (contents == nullptr)
            return TBS_ST_ERROR;
        const char *rest = contents;
        const bool fit = take_word(rest, words.first, word_size) && take_word(rest, words.second, word_size);
        stg_free(contents);
        return fit ? TBS_ST_OK : TBS_ST_ERROR;
    });
}

// Where the two words go.
struct WordBuffers {
    size_t size1;
    size_t size2;
    size_t *length1;
    size_t *length2;
    char *buffer1;
    char *buffer2;
};

tbs_status_t hand_out(const char *first, const char *second, const WordBuffers &out) {
    const size_t needed1 = strlen(first) + 1;
    const size_t needed2 = strlen(second) + 1;
    if (out.buffer1 == nullptr || out.buffer2 == nullptr || needed1 > out.size1 || needed2 > out.size2)
        return TBS_ST_ERROR;
    memcpy(out.buffer1, first, needed1);
    memcpy(out.buffer2, second, needed2);
    if (out.length1 != nullptr)
        *out.length1 = needed1;
    if (out.length2 != nullptr)
        *out.length2 = needed2;
    return TBS_ST_OK;
}

size_t length_of(const char *text) {
    return text != nullptr ? strlen(text) : 0;
}

tbs_status_t write_words(const char *path, const char *first, const char *second) {
    return with_inhibit([&]() -> tbs_status_t {
        const size_t size = length_of(first) + length_of(second) + sizeof "\n\n";
        auto *text = static_cast<char *>(stg_malloc(size));
        const bool written = text != nullptr && strutl_concat(text, size, 4, first, "\n", second, "\n") == 0 &&
                             replace_file(path, text) == TBS_ST_OK;
        stg_free(text);
        return written ? TBS_ST_OK : TBS_ST_ERROR;
    });
}

// True if the path with the suffix fits.
bool suffixed(const char *path, const char *suffix, char *out) {
    return strutl_concat(out, path_size, 2, path, suffix) == 0;
}

tbs_status_t not_replaced(const char *path, int error_number) {
    imsg_print(IMSG_ERROR, "Unable to write file \"%s\": %s.\n", IMSG_FORMAT, path, imsg_strerror(error_number));
    return TBS_ST_ERROR;
}

} // namespace

tbs_status_t velia::registry_clnt::make_backup_path(const char *path, char *out) {
    return suffixed(path, ".old", out) ? TBS_ST_OK : TBS_ST_ERROR;
}

// A backup that cannot be made does not stand in the way of the new file.
tbs_status_t velia::registry_clnt::replace_file(const char *path, const char *text) {
    char new_path[path_size];
    char old_path[path_size];
    if (!suffixed(path, ".new", new_path))
        return not_replaced(path, ENAMETOOLONG);
    const int error_number = strutl_write(text, new_path, 0, 0);
    if (error_number != 0) {
        fileutl_rm(new_path, FILEUTL_QUIET); // may be there in part
        return not_replaced(new_path, error_number);
    }
    if (make_backup_path(path, old_path) == TBS_ST_OK) {
        fileutl_rm(old_path, FILEUTL_QUIET);
        fileutl_cp(path, old_path, FILEUTL_QUIET);
    }
    const int rename_error = fileutl_rename(new_path, path);
    if (rename_error == 0)
        return TBS_ST_OK;
    fileutl_rm(new_path, FILEUTL_QUIET);
    return not_replaced(path, rename_error);
}

tbs_status_t generate_backup_pathname(const char *path, char *out) {
    return path != nullptr && out != nullptr ? make_backup_path(path, out) : tbs_status_t{TBS_ST_ERROR};
}

tbs_status_t write_file(const char *path, const char *text) {
    if (path == nullptr || text == nullptr)
        return TBS_ST_ERROR;
    return with_inhibit([&] { return replace_file(path, text); });
}

const char *registry_configuration_pathname(void) {
    return path_once(hosts_path, hosts_file);
}

tbs_status_t registry_prop_get_hostnames_local(size_t size1, size_t size2, size_t *length1, size_t *length2,
                                               char *buffer1, char *buffer2) {
    TwoWords words;
    const auto status = read_words(registry_configuration_pathname(), host_word_size, words);
    if (status != TBS_ST_OK)
        return status;
    return hand_out(words.first, words.second, {size1, size2, length1, length2, buffer1, buffer2});
}

tbs_status_t registry_prop_set_hostnames_local(size_t /*length1*/, size_t /*length2*/, const char *host1,
                                               const char *host2) {
    return write_words(registry_configuration_pathname(), host1, host2);
}

tbs_status_t registry_prop_get_region_names_local(size_t size1, size_t size2, size_t *length1, size_t *length2,
                                                  char *buffer1, char *buffer2) {
    TwoWords words;
    const auto status = read_words(path_once(region_path, region_file), region_word_size, words);
    if (status != TBS_ST_OK)
        return status;
    return with_lock(prop_local_lock, [&] {
        const char *own = registry_process_default_region;
        return hand_out(own != nullptr ? own : words.first, words.second,
                        {size1, size2, length1, length2, buffer1, buffer2});
    });
}

tbs_status_t registry_prop_set_region_names_local(size_t /*length1*/, size_t /*length2*/, const char *name1,
                                                  const char *name2) {
    return write_words(path_once(region_path, region_file), name1, name2);
}

tbs_status_t registry_prop_set_process_default_region_local(const char *region) {
    return with_lock(prop_local_lock, [&]() -> tbs_status_t {
        const bool is_set = region != nullptr && *region != '\0';
        const bool done = with_inhibit([&] {
            char *before = registry_process_default_region;
            registry_process_default_region = is_set ? stg_strdup(region) : nullptr;
            stg_free(before);
            return !is_set || registry_process_default_region != nullptr;
        });
        if (done)
            return TBS_ST_OK;
        print_failed("registry_prop_set_process_default_region_local", TBS_ST_NO_STORAGE);
        return TBS_ST_NO_STORAGE;
    });
}

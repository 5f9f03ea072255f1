// This host's data directory, the kind of process, and the start of a server.
#include <support/ks.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include <support/imsg.h>

#include "paths.h"

namespace {

// A socket must never become descriptor 0, 1 or 2, where a stray print would go into it.
void open_standard_descriptors() {
    int opened = open("/dev/null", O_RDWR);
    while (opened >= 0 && opened <= STDERR_FILENO)
        opened = open("/dev/null", O_RDWR);
    if (opened > STDERR_FILENO)
        close(opened);
}

const char *file_name_of(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

} // namespace

tbs_status_t ks_hostdata_dir(char *buffer, size_t length, const char *file_name) {
    return velia::support::path_below_root(buffer, length, "host/data", file_name);
}

int ks_web_gui(void) {
    const char *value = getenv("VELIA_WEB_GUI");
    return value != nullptr && *value != '\0' && strcmp(value, "0") != 0;
}

void ks_system_init(int argument_count, char **arguments, char *) {
    open_standard_descriptors();
    signal(SIGPIPE, SIG_IGN);
    if (argument_count > 0 && arguments[0] != nullptr)
        imsg_set_app_name(file_name_of(arguments[0]));
}

// The environment, with bounds.
#include <support/env.h>

#include <cstdlib>
#include <cstring>

char *getenv_safe(const char *name, char *buffer, size_t size, int) {
    const char *value = getenv(name);
    if (value == nullptr)
        return nullptr;
    const size_t value_size = strlen(value) + 1;
    if (value_size > size)
        return nullptr;
    return static_cast<char *>(memcpy(buffer, value, value_size));
}

// The text becomes one part of a path, so it must not lead elsewhere.
const char *lyfs_get_host_config_dir(void) {
    static thread_local char directory[256];
    const char *value = getenv_safe("VELIA_LYFS_CONFIG", directory, sizeof directory, 0);
    if (value == nullptr || strchr(value, '/') != nullptr || strcmp(value, "..") == 0 || strcmp(value, ".") == 0)
        return "";
    return directory;
}

// A process whose whole work is one answered contact through the library.
#include <veliaxdr/rvzd_handle.h>

int main(int argc, char **argv) {
    rvzd_handle_t *handle = nullptr;
    return argc < 2 || rvzd_get_handle(argv[1], &handle) != TBS_ST_OK;
}

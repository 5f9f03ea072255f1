// What loading the library costs a process: code, relocations, constructors, and the memory that one call makes dirty.
#include <bench/support/site.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <veliaxdr/rvzd_handle.h>

namespace {

constexpr const char *library_name = "libveliaxdr.so";

struct Cost {
    size_t code_bytes = 0;
    size_t relocations = 0;
    size_t constructor_bytes = 0;
};

void add_dynamic_costs(const ElfW(Dyn) * entry, Cost &cost) {
    for (; entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == DT_RELASZ || entry->d_tag == DT_PLTRELSZ)
            cost.relocations += entry->d_un.d_val / sizeof(ElfW(Rela));
        if (entry->d_tag == DT_INIT_ARRAYSZ)
            cost.constructor_bytes = entry->d_un.d_val;
    }
}

int take_costs(dl_phdr_info *info, size_t /*size*/, void *data) {
    if (strstr(info->dlpi_name, library_name) == nullptr)
        return 0;
    auto &cost = *static_cast<Cost *>(data);
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto &header = info->dlpi_phdr[i];
        if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0)
            cost.code_bytes += header.p_memsz;
        if (header.p_type == PT_DYNAMIC)
            add_dynamic_costs(reinterpret_cast<const ElfW(Dyn) *>(info->dlpi_addr + header.p_vaddr), cost);
    }
    return 1;
}

// Memory of the library's own mappings that this process has changed, relocations included.
size_t dirty_kib() {
    FILE *maps = fopen("/proc/self/smaps", "r");
    if (maps == nullptr)
        return 0;
    std::array<char, 512> line;
    bool ours = false;
    size_t total = 0;
    while (fgets(line.data(), line.size(), maps) != nullptr) {
        size_t value = 0;
        if (strchr(line.data(), '-') != nullptr && strchr(line.data(), '/') != nullptr)
            ours = strstr(line.data(), library_name) != nullptr;
        else if (strchr(line.data(), '-') != nullptr && strstr(line.data(), " kB") == nullptr)
            ours = false;
        else if (ours && sscanf(line.data(), "Private_Dirty: %zu kB", &value) == 1)
            total += value;
    }
    fclose(maps);
    return total;
}

const char *verdict(bool met) {
    return met ? "met" : "MISSED";
}

} // namespace

int main() {
    Cost cost;
    dl_iterate_phdr(take_costs, &cost);
    const size_t dirty_loaded_kib = dirty_kib();
    const bench::Site site(BENCH_DAEMON, BENCH_SAMPLE_SERVER);
    rvzd_handle_t *handle = nullptr;
    if (rvzd_get_handle(bench::Site::host, &handle) != TBS_ST_OK)
        return 1;
    rvzd_free_handle(handle);
    const size_t dirty_used_kib = dirty_kib();
    // The compiler's own frame_dummy is one entry; a constructor of ours would be another.
    const size_t constructors = cost.constructor_bytes / sizeof(void *);
    printf("code pages          %8zu KiB   (target under 1024: %s)\n", cost.code_bytes / 1024,
           verdict(cost.code_bytes < 1024 * 1024));
    printf("relocations         %8zu\n", cost.relocations);
    printf("constructors of ours%8zu       (target 0: %s)\n", constructors - 1, verdict(constructors == 1));
    printf("dirty when loaded   %8zu KiB\n", dirty_loaded_kib);
    printf("dirty after a call  %8zu KiB   (target under 100: %s)\n", dirty_used_kib, verdict(dirty_used_kib < 100));
    return 0;
}

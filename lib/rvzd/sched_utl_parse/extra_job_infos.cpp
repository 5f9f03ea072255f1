// Texts beside jobs, in an array with its measures in front of it.
#include <rvzd/sched_utl_parse/job_grammar.h>

#include <algorithm>
#include <cstring>

#include <common/with.h>

using namespace velia;

namespace {

constexpr uint64_t first_capacity = 64;
constexpr uint64_t heap_class = 1;

struct Header {
    uint64_t capacity;
    uint64_t element_size;
    uint64_t storage_class;
};
static_assert(sizeof(Header) == 3 * sizeof(uint64_t));

Header *header_of(char **infos) {
    return reinterpret_cast<Header *>(infos) - 1;
}

char **new_block(uint64_t capacity) {
    auto *header = static_cast<Header *>(stg_malloc(sizeof(Header) + capacity * sizeof(char *)));
    if (header == nullptr)
        return nullptr;
    *header = {capacity, sizeof(char *), heap_class};
    return reinterpret_cast<char **>(header + 1);
}

void release_block(char **infos) {
    if (infos != nullptr && header_of(infos)->storage_class == heap_class)
        stg_free(header_of(infos));
}

// The block for as many elements as come before `index`, that one and a further one.
char **block_for(char **infos, uint32_t index) {
    if (infos == nullptr)
        return new_block(first_capacity);
    const uint64_t capacity = header_of(infos)->capacity;
    if (uint64_t{index} + 1 < capacity)
        return infos;
    char **moved = new_block(std::max(2 * capacity, uint64_t{index} + 2));
    if (moved == nullptr)
        return nullptr;
    memcpy(moved, infos, index * sizeof(char *));
    release_block(infos);
    return moved;
}

} // namespace

bool velia::sched_utl_parse::add_extra_job_info(char **&infos, uint32_t index, char *text) {
    char **block = block_for(infos, index);
    if (block == nullptr)
        return false;
    infos = block;
    infos[index] = text;
    return true;
}

void sched_utl_free_extra_job_infos(sched_h_t /*handle*/, uint32_t count, char ***extra_job_infos) {
    with_inhibit([&] {
        char **released = *extra_job_infos;
        *extra_job_infos = nullptr;
        if (released == nullptr)
            return;
        for (uint32_t i = 0; i < count; ++i)
            stg_free(released[i]);
        release_block(released);
    });
}

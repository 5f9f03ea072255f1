// The heap and the areas. Both sit on malloc, so that storage from the RPC library's decoders and from here are
// released the same way. The allocator is never left by a posted raise: a raise through it would leave it locked.
#include <support/stg.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <support/pfm.h>

struct stg_area {
    struct stg_block *blocks; // newest first; the newest is the one that is being filled
    size_t block_size;
};

struct stg_block {
    stg_block *older;
    size_t used;
    size_t size;
    alignas(max_align_t) unsigned char bytes[];
};

namespace {

constexpr size_t least_block_size = 256;
constexpr size_t largest_request = SIZE_MAX / 2;

template <class Body>
auto undisturbed(Body &&body) {
    pfm_inhibit();
    const auto result = body();
    pfm_enable();
    return result;
}

size_t aligned(size_t size) {
    constexpr size_t unit = alignof(max_align_t);
    return (size + unit - 1) / unit * unit;
}

bool add_block(stg_area &area, size_t size) {
    auto *block = static_cast<stg_block *>(stg_malloc(sizeof(stg_block) + size));
    if (block == nullptr)
        return false;
    block->older = area.blocks;
    block->used = 0;
    block->size = size;
    area.blocks = block;
    return true;
}

char *copied_to(void *room, const char *text, size_t size) {
    return room != nullptr ? static_cast<char *>(memcpy(room, text, size)) : nullptr;
}

} // namespace

void *stg_malloc(size_t size) {
    return undisturbed([&] { return malloc(size != 0 ? size : 1); });
}

void *stg_realloc(void *pointer, size_t size) {
    return undisturbed([&] { return realloc(pointer, size != 0 ? size : 1); });
}

void stg_free(void *pointer) {
    pfm_inhibit();
    free(pointer);
    pfm_enable();
}

char *stg_strdup(const char *text) {
    if (text == nullptr)
        return nullptr;
    const size_t size = strlen(text) + 1;
    return copied_to(stg_malloc(size), text, size);
}

stg_area_t stg_create_area(size_t first_block_size) {
    if (first_block_size > largest_request)
        return nullptr;
    const size_t size = aligned(first_block_size < least_block_size ? least_block_size : first_block_size);
    auto *area = static_cast<stg_area *>(stg_malloc(sizeof(stg_area)));
    if (area == nullptr)
        return nullptr;
    *area = {nullptr, size};
    if (!add_block(*area, size)) {
        stg_free(area);
        return nullptr;
    }
    return area;
}

void stg_delete_area(stg_area_t *area) {
    if (area == nullptr)
        return;
    stg_area *doomed = *area;
    *area = nullptr;
    if (doomed == nullptr || doomed == STG_HEAP_AREA)
        return;
    for (stg_block *block = doomed->blocks; block != nullptr;) {
        stg_block *older = block->older;
        stg_free(block);
        block = older;
    }
    stg_free(doomed);
}

void *stg_alloc(stg_area_t area, size_t size) {
    if (area == STG_HEAP_AREA)
        return stg_malloc(size);
    if (area == nullptr || size > largest_request)
        return nullptr;
    const size_t wanted = aligned(size != 0 ? size : 1);
    if (area->blocks->size - area->blocks->used < wanted &&
        !add_block(*area, wanted > area->block_size ? wanted : area->block_size))
        return nullptr;
    stg_block &block = *area->blocks;
    void *room = block.bytes + block.used;
    block.used += wanted;
    return room;
}

char *stg_area_strdup(stg_area_t area, const char *text) {
    if (text == nullptr)
        return nullptr;
    const size_t size = strlen(text) + 1;
    return copied_to(stg_alloc(area, size), text, size);
}

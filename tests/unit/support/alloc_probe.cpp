#include "alloc_probe.h"

#include <atomic>
#include <cerrno>

namespace {

std::atomic<size_t> bytes{0};
std::atomic<size_t> count{0};
std::atomic<size_t> left{0};
std::atomic<bool> failed{false};

// True if this request is the one that fails.
bool is_refused(size_t size) {
    bytes += size;
    ++count;
    // The sanitizers' allocators end the program at such a size where others return null.
    constexpr size_t largest_size = size_t{1} << 38;
    if (size > largest_size)
        return true;
    size_t now = left;
    while (now != 0 && !left.compare_exchange_weak(now, now - 1)) {
    }
    if (now != 1)
        return false;
    failed = true;
    errno = ENOMEM;
    return true;
}

} // namespace

extern "C" {

void *__real_malloc(size_t size);
void *__real_realloc(void *pointer, size_t size);
void *__real_calloc(size_t count, size_t size);

void *__wrap_malloc(size_t size);
void *__wrap_malloc(size_t size) {
    return is_refused(size) ? nullptr : __real_malloc(size);
}

void *__wrap_realloc(void *pointer, size_t size);
void *__wrap_realloc(void *pointer, size_t size) {
    return is_refused(size) ? nullptr : __real_realloc(pointer, size);
}

void *__wrap_calloc(size_t element_count, size_t size);
void *__wrap_calloc(size_t element_count, size_t size) {
    return is_refused(element_count * size) ? nullptr : __real_calloc(element_count, size);
}
}

namespace probe {

void start_counting() {
    bytes = 0;
    count = 0;
}

size_t bytes_asked() {
    return bytes;
}

size_t requests() {
    return count;
}

void fail_request(size_t number) {
    failed = false;
    left = number;
}

bool has_failed() {
    return failed;
}

} // namespace probe

// Random numbers are fetched for many calls at once, by thread; a child process must not go on with its parent's.
#include "transaction.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

#include <pthread.h>
#include <sys/random.h>

#include "clock.h"

namespace velia::support::transport {

namespace {

constexpr size_t stock_size = 64; // 256 bytes, which getrandom gives whole

struct Stock {
    uint32_t numbers[stock_size];
    size_t left;
    uint32_t generation;
};

thread_local Stock stock;
std::atomic<uint32_t> generation{1};
pthread_once_t once = PTHREAD_ONCE_INIT;

void count_children() {
    pthread_atfork(nullptr, nullptr, [] { ++generation; });
}

// A system whose random numbers cannot be had is one in which numbers that merely differ have to do.
void fill_by_clock() {
    for (uint32_t &number : stock.numbers)
        number =
            static_cast<uint32_t>(static_cast<uint64_t>(now_us()) * 2654435761u + reinterpret_cast<uintptr_t>(&number));
}

void refill() {
    pthread_once(&once, count_children);
    ssize_t filled;
    do
        filled = getrandom(stock.numbers, sizeof stock.numbers, 0);
    while (filled < 0 && errno == EINTR);
    if (filled != static_cast<ssize_t>(sizeof stock.numbers))
        fill_by_clock();
    stock.left = stock_size;
    stock.generation = generation;
}

} // namespace

uint32_t new_transaction_number() {
    if (stock.left == 0 || stock.generation != generation.load(std::memory_order_relaxed))
        refill();
    return stock.numbers[--stock.left];
}

} // namespace velia::support::transport

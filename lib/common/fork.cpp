#include <common/fork.h>

#include <pthread.h>

namespace velia {

namespace {

ForkWatch *watches;
uint32_t generation;
uint32_t is_registered;

// A lock that the forking thread itself holds stays as it is: that thread goes on in the child, and gives it back.
void begin_anew_unless_free(ForkWatch &watch) {
    if (ivlthread_mutex_trylock(&watch.mutex) != 0) {
        ivlthread_mutex_unlock(&watch.mutex);
        return;
    }
    watch.mutex = {};
    watch.begin_anew();
}

void begin_anew_in_child() {
    ++generation;
    forget_unfinished_key();
    for (ForkWatch *watch = watches; watch != nullptr; watch = watch->next)
        begin_anew_unless_free(*watch);
}

} // namespace

// Two threads may come here at once with one watch or with two.
void begin_to_watch(ForkWatch &watch) {
    if (__atomic_exchange_n(&is_registered, 1, __ATOMIC_ACQ_REL) == 0)
        pthread_atfork(nullptr, nullptr, begin_anew_in_child);
    if (__atomic_exchange_n(&watch.is_watched, 1, __ATOMIC_ACQ_REL) != 0)
        return;
    watch.next = __atomic_load_n(&watches, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&watches, &watch.next, &watch, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED)) {
    }
}

uint32_t process_generation() {
    return generation;
}

} // namespace velia

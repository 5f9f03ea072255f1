// Re-entrant mutexes over a zeroed pthread mutex. The C library's own recursive mutex is not all zero when ready, so
// the owner and the depth are kept beside a plain one; only the owner is read without holding it.
#include <support/ivlthread.h>

#include <cerrno>
#include <cstdlib>

#include <support/pfm.h>

namespace {

constexpr pthread_t nobody = 0;

bool is_held_by(ivlthread_mutex_t &mutex, pthread_t thread) {
    return __atomic_load_n(&mutex.owner, __ATOMIC_RELAXED) == thread;
}

void set_owner(ivlthread_mutex_t &mutex, pthread_t thread) {
    __atomic_store_n(&mutex.owner, thread, __ATOMIC_RELAXED);
}

// Opens a frame of its own so that a raise out of the function does not leave other threads waiting for ever.
[[gnu::noinline]] void run_with_mutex_held(ivlthread_once_t &control, int (*function)(void)) {
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (pfm_cleanup_start(&frame, 0)) {
        pthread_mutex_unlock(&control.mutex);
        pfm_raise(frame.code);
    }
    function();
    pfm_cleanup_rls(&frame);
    __atomic_store_n(&control.done, 1, __ATOMIC_RELEASE);
}

// Key numbers start at 0 in the C library; 0 is no key here.
pthread_key_t system_key(ivlthread_key_t key) {
    return static_cast<pthread_key_t>(key - 1);
}

} // namespace

void ivlthread_mutex_lock(ivlthread_mutex_t *mutex) {
    const pthread_t self = pthread_self();
    if (is_held_by(*mutex, self)) {
        ++mutex->depth;
        return;
    }
    pthread_mutex_lock(&mutex->mutex);
    set_owner(*mutex, self);
    mutex->depth = 1;
}

void ivlthread_mutex_unlock(ivlthread_mutex_t *mutex) {
    if (!is_held_by(*mutex, pthread_self()))
        pfm_assert_fail("the mutex is held by the calling thread", "ivlthread", __LINE__);
    if (--mutex->depth > 0)
        return;
    set_owner(*mutex, nobody);
    pthread_mutex_unlock(&mutex->mutex);
}

void ivlthread_once(ivlthread_once_t *control, int (*function)(void)) {
    if (__atomic_load_n(&control->done, __ATOMIC_ACQUIRE) != 0)
        return;
    pthread_mutex_lock(&control->mutex);
    if (__atomic_load_n(&control->done, __ATOMIC_RELAXED) == 0)
        run_with_mutex_held(*control, function);
    pthread_mutex_unlock(&control->mutex);
}

int ivlthread_key_create(ivlthread_key_t *key, void (*destructor)(void *)) {
    pthread_key_t made;
    const int error_number = pthread_key_create(&made, destructor);
    if (error_number == 0)
        *key = static_cast<ivlthread_key_t>(made) + 1;
    return error_number;
}

void *ivlthread_get_tls(ivlthread_key_t key) {
    return key != 0 ? pthread_getspecific(system_key(key)) : nullptr;
}

int ivlthread_set_tls(ivlthread_key_t key, void *value) {
    return key != 0 ? pthread_setspecific(system_key(key), value) : EINVAL;
}

void *ivlthread_alloc_tls(size_t size) {
    return calloc(1, size != 0 ? size : 1);
}

void ivlthread_free_tls(void *pointer) {
    free(pointer);
}

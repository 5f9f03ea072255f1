/*
 * Threads: re-entrant mutexes that need no initialisation, once, per-thread values.
 *
 *     static ivlthread_mutex_t lock;
 *     ivlthread_mutex_lock(&lock);
 *     ivlthread_mutex_unlock(&lock);
 */
#ifndef VELIA_SUPPORT_IVLTHREAD_H
#define VELIA_SUPPORT_IVLTHREAD_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* All zero bits is a ready, unlocked mutex. */
typedef struct ivlthread_mutex {
    pthread_mutex_t mutex;
    pthread_t owner; /* 0: none; read without the mutex only to be compared with the caller's own identity */
    uint32_t depth;
} ivlthread_mutex_t;

/* All zero bits is a control whose function has not run. */
typedef struct ivlthread_once_control {
    pthread_mutex_t mutex;
    int32_t done;
} ivlthread_once_t;

/* 0 is no key. */
typedef uint32_t ivlthread_key_t;

/*
 * Takes the mutex, waiting without bound; the thread that holds it takes it again at once. A raise does not give it
 * back. Unlocking a mutex that the calling thread does not hold is a failed assertion.
 */
void ivlthread_mutex_lock(ivlthread_mutex_t *mutex);
void ivlthread_mutex_unlock(ivlthread_mutex_t *mutex);

/*
 * Takes the mutex if no other thread holds it, and gives 1; 0 otherwise, without waiting. Part of the header, so that
 * it asks for no name of the support layer: what the fields mean is the interface.
 */
static inline int ivlthread_mutex_trylock(ivlthread_mutex_t *mutex) {
    const pthread_t self = pthread_self();
    if (__atomic_load_n(&mutex->owner, __ATOMIC_RELAXED) == self) {
        ++mutex->depth;
        return 1;
    }
    if (pthread_mutex_trylock(&mutex->mutex) != 0)
        return 0;
    __atomic_store_n(&mutex->owner, self, __ATOMIC_RELAXED);
    mutex->depth = 1;
    return 1;
}

/*
 * Runs `function` once in the process; other threads wait until it has returned. Its result is not looked at. When a
 * raise leaves it, it counts as not run. It must not use the same control.
 */
void ivlthread_once(ivlthread_once_t *control, int (*function)(void));

/*
 * Makes a key for one value a thread and stores it in `*key`. `destructor` (may be null) is called with a thread's
 * value, if not null, at that thread's end. Returns 0, or an errno value with `*key` untouched.
 */
int ivlthread_key_create(ivlthread_key_t *key, void (*destructor)(void *));

/* The calling thread's value under `key`; null if it has none or there is no such key. */
void *ivlthread_get_tls(ivlthread_key_t key);

/* Sets the calling thread's value, which stays the caller's. Returns 0, or an errno value. */
int ivlthread_set_tls(ivlthread_key_t key, void *value);

/* Zeroed storage for a thread's state; null on failure. Released with ivlthread_free_tls, which ignores null. */
void *ivlthread_alloc_tls(size_t size);
void ivlthread_free_tls(void *pointer);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif

/*
 * Threads: re-entrant mutexes that need no initialisation, once, per-thread values.
 */
#ifndef VELIA_SUPPORT_IVLTHREAD_H
#define VELIA_SUPPORT_IVLTHREAD_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

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

void ivlthread_mutex_lock(ivlthread_mutex_t *mutex);
void ivlthread_mutex_unlock(ivlthread_mutex_t *mutex);
void ivlthread_once(ivlthread_once_t *control, int (*function)(void));
int ivlthread_key_create(ivlthread_key_t *key, void (*destructor)(void *));
void *ivlthread_get_tls(ivlthread_key_t key);
int ivlthread_set_tls(ivlthread_key_t key, void *value);
void *ivlthread_alloc_tls(size_t size);
void ivlthread_free_tls(void *pointer);

#ifdef __cplusplus
}
#endif
#endif

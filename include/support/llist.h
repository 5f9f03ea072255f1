/*
 * Circular double lists whose elements live inside other records.
 */
#ifndef VELIA_SUPPORT_LLIST_H
#define VELIA_SUPPORT_LLIST_H

#ifdef __cplusplus
extern "C" {
#endif

/* The head is two words; an element begins with the same two words and keeps its owner in a third. */
typedef struct llist_d_head {
    struct llist_d_head *next;
    struct llist_d_head *previous;
} llist_d_head_t;

typedef struct llist_d_elem {
    llist_d_head_t links;
    void *owner;
} llist_d_elem_t;

void llist_d_insert(llist_d_head_t *head, void *owner, llist_d_elem_t *element, int reserved);
void llist_d_remove(llist_d_elem_t *element);

#ifdef __cplusplus
}
#endif
#endif

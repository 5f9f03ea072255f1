/*
 * Circular double lists whose elements live inside other records.
 *
 *     llist_d_head_t list = {&list, &list};
 *     llist_d_insert(&list, record, &record->element, 0);
 *     for (llist_d_head_t *at = list.next; at != &list; at = at->next)
 *         use(((llist_d_elem_t *)at)->owner);
 *
 * Nothing is allocated. The caller holds whatever lock guards the list.
 */
#ifndef VELIA_SUPPORT_LLIST_H
#define VELIA_SUPPORT_LLIST_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The head is two words; an element begins with the same two words and keeps its owner in a third. */
typedef struct llist_d_head {
    struct llist_d_head *next;
    struct llist_d_head *previous;
} llist_d_head_t;

typedef struct llist_d_elem {
    llist_d_head_t links;
    void *owner;
} llist_d_elem_t;

/*
 * Appends `element` at the tail of the list under `head` and keeps `owner` in its third word. A head whose first word
 * is null is made an empty list first. The element must be in no list. `reserved` is 0.
 */
void llist_d_insert(llist_d_head_t *head, void *owner, llist_d_elem_t *element, int reserved);

/* Unlinks `element` and clears its links, so that taking it out twice does nothing. The owner word stays. */
void llist_d_remove(llist_d_elem_t *element);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif

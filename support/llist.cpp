// Circular double lists.
#include <support/llist.h>

void llist_d_insert(llist_d_head_t *head, void *owner, llist_d_elem_t *element, int) {
    if (head->next == nullptr)
        head->next = head->previous = head;
    element->owner = owner;
    element->links.next = head;
    element->links.previous = head->previous;
    head->previous->next = &element->links;
    head->previous = &element->links;
}

void llist_d_remove(llist_d_elem_t *element) {
    llist_d_head_t &links = element->links;
    if (links.next == nullptr)
        return;
    links.previous->next = links.next;
    links.next->previous = links.previous;
    links = {nullptr, nullptr};
}

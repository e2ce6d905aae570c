#include "vc/list.h"

void INIT_LIST_HEAD(vc_list *head)
{
    head->next = head;
    head->prev = head;
}

void __list_add(vc_list *entry, vc_list *prev, vc_list *next)
{
    next->prev = entry;
    entry->next = next;
    entry->prev = prev;
    prev->next = entry;
}

void list_add_tail(vc_list *entry, vc_list *head)
{
    __list_add(entry, head->prev, head);
}

void __list_del(vc_list *prev, vc_list *next)
{
    next->prev = prev;
    prev->next = next;
}

// Left as a list of its own, so that an entry that is unlinked twice does no
// harm.
void list_del_init(vc_list *entry)
{
    __list_del(entry->prev, entry->next);
    INIT_LIST_HEAD(entry);
}

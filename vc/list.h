// The intrusive circular list: the link is the first member of an element.
#pragma once

#include <ttyline/vc.h>

void INIT_LIST_HEAD(vc_list *head);
// Links entry between two neighbours.
void __list_add(vc_list *entry, vc_list *prev, vc_list *next);
// Appends before the head, so that a list keeps the order of its additions.
void list_add_tail(vc_list *entry, vc_list *head);
// Joins two neighbours.
void __list_del(vc_list *prev, vc_list *next);
// Unlinks entry and makes it an empty list of its own.
void list_del_init(vc_list *entry);

// An accepted socket has one owner: its entry here until the inetd has
// answered, then its session.
#include "vc/pending.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "vc/list.h"

vc_list g_vc_accept_list = {&g_vc_accept_list, &g_vc_accept_list};
int32_t g_vc_accept_fd_num = 0;

vc_accept_entry *vc_pending_add(int fd)
{
    vc_accept_entry *entry =
        static_cast<vc_accept_entry *>(malloc(sizeof *entry));

    if (entry == nullptr) {
        vc_debug_msg("vc: malloc accpet_fd fail at %s, line:%d\n", "vc_accept",
                     __LINE__);
        return nullptr;
    }
    entry->fd = fd;
    // It may stand for another entry already, see the header: an answer names
    // the descriptor too.
    entry->accept_id = ++g_vc_accept_fd_num;
    list_add_tail(&entry->link, &g_vc_accept_list);
    vc_debug_msg("vc: vc_accept, fd=%d, num=%d, line=%d\n", fd,
                 entry->accept_id, __LINE__);
    return entry;
}

void vc_pending_drop(vc_accept_entry *entry)
{
    list_del_init(&entry->link);
    g_vc_accept_fd_num--;
    free(entry);
}

void vc_pending_take(int fd, int accept_id)
{
    for (vc_list *link = g_vc_accept_list.next; link != &g_vc_accept_list;
         link = link->next) {
        vc_accept_entry *entry = reinterpret_cast<vc_accept_entry *>(link);
        if (entry->fd == fd && entry->accept_id == accept_id) {
            vc_pending_drop(entry);
            return;
        }
    }
}

void vc_pending_drop_all(void)
{
    while (g_vc_accept_list.next != &g_vc_accept_list) {
        vc_accept_entry *entry =
            reinterpret_cast<vc_accept_entry *>(g_vc_accept_list.next);
        if (entry->fd > 0) {
            close(entry->fd);
        }
        vc_debug_msg("(vc:%d):%s close all socket fd, err %s.\r\n", getpid(),
                     "vc_deal_msg", strerror(errno));
        vc_pending_drop(entry);
    }
}

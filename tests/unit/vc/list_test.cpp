#include "vc/list.h"

#include <gtest/gtest.h>

TEST(ListTest, a_head_leads_to_itself_both_ways)
{
    vc_list head;
    INIT_LIST_HEAD(&head);
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(head.prev, &head);
}

TEST(ListTest, it_keeps_the_order_of_additions)
{
    vc_list head;
    vc_list a;
    vc_list b;
    INIT_LIST_HEAD(&head);
    list_add_tail(&a, &head);
    list_add_tail(&b, &head);
    EXPECT_EQ(head.next, &a);
    EXPECT_EQ(a.next, &b);
    EXPECT_EQ(b.next, &head);
    EXPECT_EQ(head.prev, &b);
    EXPECT_EQ(b.prev, &a);
    EXPECT_EQ(a.prev, &head);
}

TEST(ListTest, an_unlinked_entry_leads_to_itself)
{
    vc_list head;
    vc_list a;
    vc_list b;
    INIT_LIST_HEAD(&head);
    list_add_tail(&a, &head);
    list_add_tail(&b, &head);
    list_del_init(&a);
    EXPECT_EQ(a.next, &a);
    EXPECT_EQ(a.prev, &a);
    EXPECT_EQ(head.next, &b);
    EXPECT_EQ(b.prev, &head);
}

TEST(ListTest, an_entry_is_put_between_two_neighbours)
{
    vc_list head;
    vc_list a;
    vc_list b;
    INIT_LIST_HEAD(&head);
    list_add_tail(&b, &head);
    __list_add(&a, &head, &b);
    EXPECT_EQ(head.next, &a);
    EXPECT_EQ(a.next, &b);
    __list_del(&head, &b);
    EXPECT_EQ(head.next, &b);
    EXPECT_EQ(b.prev, &head);
}

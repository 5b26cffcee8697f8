// The intrusive list: order, removal rules and the fatal misuse checks.
#include <gtest/gtest.h>

#include "runtime/llist.h"
#include "tests/support/test_board.h"

namespace {

struct node {
    node* next;
    int value;
};

class llist_test : public board_test {};

std::vector<int> values(node* head)
{
    std::vector<int> v;
    for (node* n = head; n != nullptr; n = n->next)
        v.push_back(n->value);
    return v;
}

TEST_F(llist_test, append_first_and_last_keep_order)
{
    node a{nullptr, 1}, b{nullptr, 2}, c{nullptr, 3};
    node* head = nullptr;
    llist_append_first(&head, &a);
    llist_append_first(&head, &b);
    llist_append_last(&head, &c);
    EXPECT_EQ(values(head), (std::vector<int>{2, 1, 3}));

    EXPECT_EQ(llist_remove_first(&head), &b);
    EXPECT_EQ(values(head), (std::vector<int>{1, 3}));
}

TEST_F(llist_test, remove_rules)
{
    node a{nullptr, 1}, b{nullptr, 2}, c{nullptr, 3}, stranger{nullptr, 9};
    node* head = nullptr;
    EXPECT_EQ(llist_remove_first(&head), nullptr);
    {
        stdout_capture out;
        EXPECT_EQ(llist_remove(&head, &a), -1);
        EXPECT_NE(out.text().find("Error!! head:00000000 list:"), std::string::npos);
    }
    llist_append_last(&head, &a);
    llist_append_last(&head, &b);
    llist_append_last(&head, &c);
    EXPECT_EQ(llist_remove(&head, &stranger), 0);
    EXPECT_EQ(values(head), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(llist_remove(&head, static_cast<node*>(nullptr)), -1);
    EXPECT_EQ(llist_remove(&head, &b), 0);
    EXPECT_EQ(values(head), (std::vector<int>{1, 3}));
    EXPECT_EQ(llist_remove(&head, &c), 0);
    EXPECT_EQ(llist_remove(&head, &a), 0);
    EXPECT_EQ(head, nullptr);
}

TEST_F(llist_test, dump_lists_every_node)
{
    node a{nullptr, 1}, b{nullptr, 2};
    node* head = nullptr;
    llist_append_last(&head, &a);
    llist_append_last(&head, &b);
    stdout_capture out;
    llist_dump(&head);
    std::string text = out.text();
    EXPECT_NE(text.find("cnt:0 list:"), std::string::npos);
    EXPECT_NE(text.find("cnt:1 list:"), std::string::npos);
    EXPECT_EQ(text.find("cnt:2"), std::string::npos);
}

using llist_death_test = llist_test;

TEST_F(llist_death_test, misuse_aborts_with_its_message)
{
    node a{nullptr, 1}, b{nullptr, 2};
    node* head = nullptr;
    llist_append_last(&head, &a);
    llist_append_last(&head, &b);
    EXPECT_FATAL(llist_append_last(&head, &b), "t == list");
    EXPECT_FATAL(llist_append_last(&head, &a), "t == list");
    EXPECT_FATAL(llist_append_last(static_cast<node**>(nullptr), &a), "head is NULL");
    EXPECT_FATAL(llist_append_first(&head, static_cast<node*>(nullptr)), "list is NULL");
    EXPECT_FATAL(llist_remove_first(static_cast<node**>(nullptr)), "head is NULL");
    EXPECT_FATAL(llist_remove(static_cast<node**>(nullptr), &a), "head is NULL");
}

}  // namespace

// The intrusive list: order, removal rules and the fatal misuse checks.
#include <gtest/gtest.h>

#include "runtime/llist.h"
#include "tests/support/test_board.h"

namespace {

struct node {
    node* next;
    int value;
};

class llist_test : public board_test {
protected:
    node a_{nullptr, 1}, b_{nullptr, 2}, c_{nullptr, 3};
    node* head_ = nullptr;
};

TEST_F(llist_test, order_and_removal)
{
    EXPECT_EQ(llist_remove_first(&head_), nullptr);
    EXPECT_EQ(llist_remove(&head_, &a_), -1);
    llist_append_first(&head_, &a_);
    llist_append_first(&head_, &b_);
    llist_append_last(&head_, &c_);  // b a c
    node stranger{nullptr, 9};
    EXPECT_EQ(llist_remove(&head_, &stranger), 0);
    EXPECT_EQ(llist_remove(&head_, static_cast<node*>(nullptr)), -1);
    EXPECT_EQ(llist_remove(&head_, &a_), 0);
    EXPECT_EQ(head_, &b_);
    EXPECT_EQ(b_.next, &c_);
    EXPECT_EQ(llist_remove_first(&head_), &b_);
    EXPECT_EQ(llist_remove(&head_, &c_), 0);
    EXPECT_EQ(head_, nullptr);
}

using llist_death_test = llist_test;

TEST_F(llist_death_test, misuse_aborts_with_its_message)
{
    llist_append_last(&head_, &a_);
    llist_append_last(&head_, &b_);
    EXPECT_FATAL(llist_append_last(&head_, &a_), "t == list");
    EXPECT_FATAL(llist_append_last(static_cast<node**>(nullptr), &a_), "head is NULL");
    EXPECT_FATAL(llist_append_first(&head_, static_cast<node*>(nullptr)), "list is NULL");
    EXPECT_FATAL(llist_remove_first(static_cast<node**>(nullptr)), "head is NULL");
    EXPECT_FATAL(llist_remove(static_cast<node**>(nullptr), &a_), "head is NULL");
}

}  // namespace

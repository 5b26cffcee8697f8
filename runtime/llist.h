// Intrusive singly linked list. A node is any structure whose first field
// is `next`, the pointer to the following node; a list is one head pointer
// (NULL when empty). The list allocates and frees nothing and has no lock:
// its user serialises access.
#pragma once

#include <concepts>
#include <cstddef>
#include <type_traits>

#include "cal/cal_log.h"

template <class Node>
concept llist_node = std::is_standard_layout_v<Node> && requires(Node n) {
    { n.next } -> std::same_as<Node*&>;
};

template <llist_node Node>
void llist_append_last(Node** head, Node* node)
{
    static_assert(offsetof(Node, next) == 0, "the link must be the node's first field");
    if (head == nullptr)
        CAL_FATAL("head is NULL\n");
    if (node == nullptr)
        CAL_FATAL("list is NULL\n");
    Node* last = nullptr;
    for (Node* t = *head; t != nullptr; t = t->next) {
        if (t == node)
            CAL_FATAL("t == list\n");
        last = t;
    }
    node->next = nullptr;
    if (last == nullptr)
        *head = node;
    else
        last->next = node;
}

template <llist_node Node>
void llist_append_first(Node** head, Node* node)
{
    if (head == nullptr)
        CAL_FATAL("head is NULL\n");
    if (node == nullptr)
        CAL_FATAL("list is NULL\n");
    node->next = *head;
    *head = node;
}

// The removed first node (its own link left as it was), or NULL.
template <llist_node Node>
Node* llist_remove_first(Node** head)
{
    if (head == nullptr)
        CAL_FATAL("head is NULL\n");
    Node* first = *head;
    if (first != nullptr)
        *head = first->next;
    return first;
}

// 0, also when node is not in the list; -1 for an empty list or NULL node.
template <llist_node Node>
int llist_remove(Node** head, Node* node)
{
    if (head == nullptr)
        CAL_FATAL("head is NULL\n");
    if (*head == nullptr || node == nullptr) {
        TRACE("Error!! head:%08x list:%08x\n", ptr32(*head), ptr32(node));
        return -1;
    }
    if (*head == node) {
        *head = node->next;
        return 0;
    }
    for (Node* t = *head; t->next != nullptr; t = t->next) {
        if (t->next == node) {
            t->next = node->next;
            break;
        }
    }
    return 0;
}

template <llist_node Node>
void llist_dump(Node** head)
{
    TRACE("dump head:%08x\n", ptr32(head));
    int cnt = 0;
    for (Node* t = head ? *head : nullptr; t != nullptr; t = t->next)
        TRACE("cnt:%d list:%p\n", cnt++, static_cast<void*>(t));
}

/*
 * The inside of a key list and its inner loop, for the one owner in this folder that keeps a list
 * within itself.
 *
 * The list is doubly linked in nodes of sixteen entries, the first of which is part of the list.
 * Two facts about the keys tell a new one without a walk: the highest key, since whoever builds a
 * list mostly adds ascending keys, and a word with one of 64 bits set for each key.
 */
#pragma once

#include "tlv/key_list.h"

constexpr int KEY_LIST_NODE_ENTRIES = 16;

struct key_list_node {
    std::uint32_t keys[KEY_LIST_NODE_ENTRIES];
    void *values[KEY_LIST_NODE_ENTRIES];
    int used;
    key_list_node *next;
    key_list_node *previous;
};

struct key_list {
    std::int32_t count;
    std::uint32_t highest;
    std::uint64_t seen; /* key_list_bit of every key */
    key_list_release release;
    key_list_node *tail;
    key_list_node head;
};

/* What key_list_create and key_list_destroy do, in room of the owner's. The list must not move. */
void key_list_init(key_list *o_pList, key_list_release i_pRelease);
void key_list_clear(key_list *i_pList);
/* A new last node; null when memory is exhausted. */
key_list_node *key_list_grow(key_list *i_pList);

/* The upper bits of the product depend on all bits of the key. */
inline std::uint64_t key_list_bit(std::uint32_t i_u32Key)
{
    return 1ULL << ((i_u32Key * 0x9E3779B1U) >> 26);
}

/* Where the value of the key is kept; null when the key is absent. */
inline void *const *key_list_place(const key_list *i_pList, std::uint32_t i_u32Key)
{
    if (i_u32Key > i_pList->highest || (i_pList->seen & key_list_bit(i_u32Key)) == 0) {
        return nullptr;
    }
    for (const key_list_node *pNode = &i_pList->head; pNode != nullptr; pNode = pNode->next) {
        for (int i = 0; i < pNode->used; i++) {
            if (pNode->keys[i] == i_u32Key) {
                return &pNode->values[i];
            }
        }
    }
    return nullptr;
}

/* key_list_add without the check for a null list. */
inline int key_list_append(key_list *i_pList, std::uint32_t i_u32Key, void *i_pValue)
{
    if (i_pList->count == INT32_MAX || key_list_place(i_pList, i_u32Key) != nullptr) {
        return -1;
    }
    key_list_node *pNode = i_pList->tail;
    if (pNode->used == KEY_LIST_NODE_ENTRIES) {
        pNode = key_list_grow(i_pList);
        if (pNode == nullptr) {
            return -1;
        }
    }
    pNode->keys[pNode->used] = i_u32Key;
    pNode->values[pNode->used] = i_pValue;
    pNode->used++;
    i_pList->count++;
    i_pList->seen |= key_list_bit(i_u32Key);
    if (i_u32Key > i_pList->highest) {
        i_pList->highest = i_u32Key;
    }
    return 0;
}

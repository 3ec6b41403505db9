/*
 * The inside of a key list and its inner loop, for the one owner in this folder that keeps a list
 * within itself.
 *
 * The list is doubly linked in nodes of sixteen entries, of which all but the last are full; the
 * first is part of the list. Two facts about the keys tell a new one without a walk: the highest
 * key, since whoever builds a list mostly adds ascending keys, and a word with one of 64 bits set
 * for each key.
 */
#pragma once

#include <algorithm>

#include "tlv/key_list.h"

inline constexpr std::uint32_t KEY_LIST_NODE_ENTRIES = 16;

struct key_list_node {
    std::uint32_t keys[KEY_LIST_NODE_ENTRIES];
    void *values[KEY_LIST_NODE_ENTRIES];
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
/* A new last node; null when memory is exhausted or the count cannot grow by a node. */
key_list_node *key_list_grow(key_list *i_pList);

/* The upper bits of the product depend on all bits of the key. */
inline std::uint64_t key_list_bit(std::uint32_t i_u32Key)
{
    return 1ULL << ((i_u32Key * 0x9E3779B1U) >> 26);
}

/* Whether no entry can have that key. */
inline bool key_list_is_new(const key_list *i_pList, std::uint32_t i_u32Key)
{
    return i_u32Key > i_pList->highest || (i_pList->seen & key_list_bit(i_u32Key)) == 0;
}

/* Where the value of the first key that agrees on the bits of the mask is kept, or null. */
inline void *const *key_list_place(const key_list *i_pList, std::uint32_t i_u32Key,
                                   std::uint32_t i_u32Mask = UINT32_MAX)
{
    auto u32Left = static_cast<std::uint32_t>(i_pList->count);
    for (const key_list_node *pNode = &i_pList->head; u32Left > 0; pNode = pNode->next) {
        const std::uint32_t u32Used = std::min(u32Left, KEY_LIST_NODE_ENTRIES);
        for (std::uint32_t i = 0; i < u32Used; i++) {
            if (((pNode->keys[i] ^ i_u32Key) & i_u32Mask) == 0) {
                return &pNode->values[i];
            }
        }
        u32Left -= u32Used;
    }
    return nullptr;
}

/* key_list_add without the check for a null list. */
inline int key_list_append(key_list *i_pList, std::uint32_t i_u32Key, void *i_pValue)
{
    const auto u32Count = static_cast<std::uint32_t>(i_pList->count);
    if (!key_list_is_new(i_pList, i_u32Key) && key_list_find_key(i_pList, i_u32Key) == 1) {
        return -1;
    }
    key_list_node *pNode = i_pList->tail;
    const std::uint32_t u32Index = u32Count % KEY_LIST_NODE_ENTRIES;
    if (u32Index == 0 && u32Count > 0) {
        pNode = key_list_grow(i_pList);
        if (pNode == nullptr) {
            return -1;
        }
    }
    pNode->keys[u32Index] = i_u32Key;
    pNode->values[u32Index] = i_pValue;
    i_pList->count++;
    i_pList->seen |= key_list_bit(i_u32Key);
    i_pList->highest = i_u32Key > i_pList->highest ? i_u32Key : i_pList->highest;
    return 0;
}

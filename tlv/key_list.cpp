/*
 * Ordered map from a 32-bit key to a pointer: entries in the order of the adds.
 */
#include "tlv/key_list.h"

#include <climits>
#include <cstdlib>

namespace
{
struct entry {
    std::uint32_t key;
    void *value;
    entry *next;
    entry *previous;
};
} // namespace

struct key_list {
    std::int32_t count;
    entry *head;
    entry *tail;
    key_list_release release;
};

namespace
{
/* The first entry whose key agrees on the bits of the mask, or null. */
entry *find(const key_list *i_pList, std::uint32_t i_u32Key, std::uint32_t i_u32Mask = UINT32_MAX)
{
    entry *pEntry = i_pList != nullptr ? i_pList->head : nullptr;
    while (pEntry != nullptr && ((pEntry->key ^ i_u32Key) & i_u32Mask) != 0) {
        pEntry = pEntry->next;
    }
    return pEntry;
}
} // namespace

key_list *key_list_create(key_list_release i_pRelease)
{
    auto *pList = static_cast<key_list *>(std::malloc(sizeof(key_list)));
    if (pList != nullptr) {
        *pList = key_list{0, nullptr, nullptr, i_pRelease};
    }
    return pList;
}

int key_list_destroy(key_list *i_pList)
{
    if (i_pList == nullptr) {
        return -1;
    }
    for (entry *pEntry = i_pList->head; pEntry != nullptr;) {
        entry *pNext = pEntry->next;
        if (i_pList->release != nullptr) {
            i_pList->release(pEntry->value);
        }
        std::free(pEntry);
        pEntry = pNext;
    }
    std::free(i_pList);
    return 0;
}

int key_list_add(key_list *i_pList, std::uint32_t i_u32Key, void *i_pValue)
{
    if (i_pList == nullptr || i_pList->count == INT_MAX || find(i_pList, i_u32Key) != nullptr) {
        return -1;
    }
    auto *pEntry = static_cast<entry *>(std::malloc(sizeof(entry)));
    if (pEntry == nullptr) {
        return -1;
    }
    *pEntry = entry{i_u32Key, i_pValue, nullptr, i_pList->tail};
    (i_pList->tail != nullptr ? i_pList->tail->next : i_pList->head) = pEntry;
    i_pList->tail = pEntry;
    i_pList->count++;
    return 0;
}

int key_list_get(const key_list *i_pList, std::uint32_t i_u32Key, void **o_pValue)
{
    return key_list_mask_get(i_pList, i_u32Key, UINT32_MAX, o_pValue);
}

int key_list_mask_get(const key_list *i_pList, std::uint32_t i_u32Key, std::uint32_t i_u32Mask,
                      void **o_pValue)
{
    const entry *pEntry = find(i_pList, i_u32Key, i_u32Mask);
    if (pEntry == nullptr || o_pValue == nullptr) {
        return -1;
    }
    *o_pValue = pEntry->value;
    return 0;
}

int key_list_find_key(const key_list *i_pList, std::uint32_t i_u32Key)
{
    return find(i_pList, i_u32Key) != nullptr ? 1 : 0;
}

int key_list_edit(key_list *i_pList, std::uint32_t i_u32Key, void *i_pValue)
{
    entry *pEntry = find(i_pList, i_u32Key);
    if (pEntry == nullptr) {
        return -1;
    }
    pEntry->value = i_pValue;
    return 0;
}

int key_list_count(const key_list *i_pList)
{
    return i_pList != nullptr ? i_pList->count : -1;
}

int key_list_keyset(const key_list *i_pList, std::uint32_t *o_pKeys, int i_s32Capacity)
{
    if (i_pList == nullptr || i_pList->count > i_s32Capacity) {
        return -1;
    }
    if (o_pKeys == nullptr) {
        return i_pList->count == 0 ? 0 : -1;
    }
    for (const entry *pEntry = i_pList->head; pEntry != nullptr; pEntry = pEntry->next) {
        *o_pKeys++ = pEntry->key;
    }
    return i_pList->count;
}

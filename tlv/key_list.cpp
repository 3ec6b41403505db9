/*
 * Ordered map from a 32-bit key to a pointer: entries in the order of the adds.
 */
#include "tlv/key_list.h"

#include <climits>
#include <cstdlib>

#include "tlv/key_list_layout.h"

namespace
{
void init_node(key_list_node *o_pNode, key_list_node *i_pPrevious)
{
    o_pNode->next = nullptr;
    o_pNode->previous = i_pPrevious;
}

/* Calls the function with each key and value, front to back. */
template <typename F> void each(const key_list *i_pList, F i_pFunction)
{
    const key_list_node *pNode = &i_pList->head;
    for (std::uint32_t i = 0; i < static_cast<std::uint32_t>(i_pList->count); i++) {
        if (i > 0 && i % KEY_LIST_NODE_ENTRIES == 0) {
            pNode = pNode->next;
        }
        const std::uint32_t u32Index = i % KEY_LIST_NODE_ENTRIES;
        i_pFunction(pNode->keys[u32Index], pNode->values[u32Index]);
    }
}
} // namespace

key_list_node *key_list_grow(key_list *i_pList)
{
    if (i_pList->count > INT_MAX - static_cast<int>(KEY_LIST_NODE_ENTRIES)) {
        return nullptr;
    }
    auto *pNode = static_cast<key_list_node *>(std::malloc(sizeof(key_list_node)));
    if (pNode != nullptr) {
        init_node(pNode, i_pList->tail);
        i_pList->tail->next = pNode;
        i_pList->tail = pNode;
    }
    return pNode;
}

void key_list_init(key_list *o_pList, key_list_release i_pRelease)
{
    o_pList->count = 0;
    o_pList->highest = 0;
    o_pList->seen = 0;
    o_pList->release = i_pRelease;
    o_pList->tail = &o_pList->head;
    init_node(&o_pList->head, nullptr);
}

void key_list_clear(key_list *i_pList)
{
    if (i_pList->release != nullptr) {
        each(i_pList, [i_pList](std::uint32_t, void *i_pValue) { i_pList->release(i_pValue); });
    }
    for (key_list_node *pNode = i_pList->head.next; pNode != nullptr;) {
        key_list_node *pNext = pNode->next;
        std::free(pNode);
        pNode = pNext;
    }
}

key_list *key_list_create(key_list_release i_pRelease)
{
    auto *pList = static_cast<key_list *>(std::malloc(sizeof(key_list)));
    if (pList != nullptr) {
        key_list_init(pList, i_pRelease);
    }
    return pList;
}

int key_list_destroy(key_list *i_pList)
{
    if (i_pList == nullptr) {
        return -1;
    }
    key_list_clear(i_pList);
    std::free(i_pList);
    return 0;
}

int key_list_add(key_list *i_pList, std::uint32_t i_u32Key, void *i_pValue)
{
    return i_pList != nullptr ? key_list_append(i_pList, i_u32Key, i_pValue) : -1;
}

int key_list_get(const key_list *i_pList, std::uint32_t i_u32Key, void **o_pValue)
{
    return key_list_mask_get(i_pList, i_u32Key, UINT32_MAX, o_pValue);
}

int key_list_mask_get(const key_list *i_pList, std::uint32_t i_u32Key, std::uint32_t i_u32Mask,
                      void **o_pValue)
{
    void *const *pPlace =
        i_pList != nullptr ? key_list_place(i_pList, i_u32Key, i_u32Mask) : nullptr;
    if (pPlace == nullptr || o_pValue == nullptr) {
        return -1;
    }
    *o_pValue = *pPlace;
    return 0;
}

int key_list_find_key(const key_list *i_pList, std::uint32_t i_u32Key)
{
    return i_pList != nullptr && key_list_place(i_pList, i_u32Key) != nullptr ? 1 : 0;
}

int key_list_edit(key_list *i_pList, std::uint32_t i_u32Key, void *i_pValue)
{
    void *const *pPlace = i_pList != nullptr ? key_list_place(i_pList, i_u32Key) : nullptr;
    if (pPlace == nullptr) {
        return -1;
    }
    *const_cast<void **>(pPlace) = i_pValue;
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
    each(i_pList, [&o_pKeys](std::uint32_t i_u32Key, void *) { *o_pKeys++ = i_u32Key; });
    return i_pList->count;
}

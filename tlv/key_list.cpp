/*
 * Ordered map from a 32-bit key to a pointer: entries in the order of the adds.
 */
#include "tlv/key_list.h"

#include <cstdlib>

#include "tlv/key_list_layout.h"

namespace
{
void init_node(key_list_node *o_pNode, key_list_node *i_pPrevious)
{
    o_pNode->used = 0;
    o_pNode->next = nullptr;
    o_pNode->previous = i_pPrevious;
}
} // namespace

key_list_node *key_list_grow(key_list *i_pList)
{
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
    key_list_node *pNode = &i_pList->head;
    while (pNode != nullptr) {
        for (int i = 0; i_pList->release != nullptr && i < pNode->used; i++) {
            i_pList->release(pNode->values[i]);
        }
        key_list_node *pNext = pNode->next;
        if (pNode != &i_pList->head) {
            std::free(pNode);
        }
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
    if (i_pList == nullptr || o_pValue == nullptr) {
        return -1;
    }
    for (const key_list_node *pNode = &i_pList->head; pNode != nullptr; pNode = pNode->next) {
        for (int i = 0; i < pNode->used; i++) {
            if (((i_u32Key ^ pNode->keys[i]) & i_u32Mask) == 0) {
                *o_pValue = pNode->values[i];
                return 0;
            }
        }
    }
    return -1;
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
    for (const key_list_node *pNode = &i_pList->head; pNode != nullptr; pNode = pNode->next) {
        for (int i = 0; i < pNode->used; i++) {
            *o_pKeys++ = pNode->keys[i];
        }
    }
    return i_pList->count;
}

/*
 * Ordered map from a 32-bit key to a pointer: entries in the order of the adds. Offered and tested
 * as a whole; none of the programs here calls it, and a box keeps its records by itself.
 *
 * Lookups are linear; the lists hold a handful of entries, so no index is kept. A list is not
 * locked: threads may share one as long as none of them changes it. Null lists and null outputs
 * are answered with -1 (0 by key_list_find_key).
 */
#pragma once

#include <cstddef>
#include <cstdint>

struct key_list;

using key_list_release = void (*)(void *i_pValue);

/* An empty list, or null when an allocation failed. i_pRelease (may be null) is called on each
 * value when the list is destroyed. */
key_list *key_list_create(key_list_release i_pRelease);
/* Releases every value, front to back, and frees the list. 0; -1 for a null list. */
int key_list_destroy(key_list *i_pList);

/* 0 appended at the tail; -1 when the key is present already (nothing is changed) or memory is
 * exhausted. */
int key_list_add(key_list *i_pList, std::uint32_t i_u32Key, void *i_pValue);

/* 0 and the value in *o_pValue, or -1 with *o_pValue as it was. */
int key_list_get(const key_list *i_pList, std::uint32_t i_u32Key, void **o_pValue);
/* The same for the first entry whose key agrees with i_u32Key on every bit set in i_u32Mask. */
int key_list_mask_get(const key_list *i_pList, std::uint32_t i_u32Key, std::uint32_t i_u32Mask,
                      void **o_pValue);
/* 1 present, 0 absent. */
int key_list_find_key(const key_list *i_pList, std::uint32_t i_u32Key);
/* 0 after replacing the value (the old one is not released), -1 if the key is absent. */
int key_list_edit(key_list *i_pList, std::uint32_t i_u32Key, void *i_pValue);

int key_list_count(const key_list *i_pList);
/* Writes the keys in the order of the adds and returns their count; -1, with nothing written, if
 * there are more than i_s32Capacity. */
int key_list_keyset(const key_list *i_pList, std::uint32_t *o_pKeys, int i_s32Capacity);

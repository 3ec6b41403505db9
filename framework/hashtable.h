/*
 * Chained hash table over entries that carry their own chain link.
 *
 * T: entry with an accessible `T *m_pNextHashEntry`, null while in no table.
 * K: key, constructible from a T*, with `UInt32 GetHashKey()` and `==`.
 * The table owns its bucket heads only; entries are taken out before they are destroyed.
 *
 * Unsynchronised: the owner locks.
 */
#pragma once

#include <memory>
#include <new>

#include "framework/assertion.h"
#include "framework/types.h"

template <class T, class K> class CHashTable
{
public:
    /* i_u32Size: number of buckets. Asserts that it is not 0 and that no allocation failed. */
    explicit CHashTable(UInt32 i_u32Size)
        : m_pHashTable(i_u32Size > 0 ? new (std::nothrow) T *[i_u32Size]() : nullptr),
          m_u32Size(i_u32Size), m_u32Mask((i_u32Size & (i_u32Size - 1)) == 0 ? i_u32Size - 1 : 0),
          m_u32NumEntries(0)
    {
        assert(m_pHashTable);
    }
    CHashTable(const CHashTable &) = delete;
    CHashTable &operator=(const CHashTable &) = delete;

    /* The entry added last among those with this key; null if there is none. */
    T *Map(K *i_pKey)
    {
        T *pEntry = m_pHashTable[ComputeIndex(i_pKey->GetHashKey())];
        while (pEntry != nullptr && !(K(pEntry) == *i_pKey)) {
            pEntry = pEntry->m_pNextHashEntry;
        }
        return pEntry;
    }

    /* Does not search for an entry with an equal key. Asserts that no other entry is chained
     * behind this one. */
    void Add(T *i_pEntry)
    {
        assert(i_pEntry->m_pNextHashEntry == NULL);
        T *&pHead = m_pHashTable[ComputeIndex(K(i_pEntry).GetHashKey())];
        i_pEntry->m_pNextHashEntry = pHead;
        pHead = i_pEntry;
        m_u32NumEntries++;
    }

    /* Does nothing if this very entry is not in the table. */
    void Remove(T *i_pEntry)
    {
        T **ppLink = &m_pHashTable[ComputeIndex(K(i_pEntry).GetHashKey())];
        while (*ppLink != nullptr && *ppLink != i_pEntry) {
            ppLink = &(*ppLink)->m_pNextHashEntry;
        }
        if (*ppLink != nullptr) {
            *ppLink = i_pEntry->m_pNextHashEntry;
            i_pEntry->m_pNextHashEntry = nullptr;
            m_u32NumEntries--;
        }
    }

    /* The bucket of a hash value. */
    UInt32 ComputeIndex(UInt32 i_u32Hash) const
    {
        return m_u32Mask != 0 ? i_u32Hash & m_u32Mask : i_u32Hash % m_u32Size;
    }

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    UInt32 GetNumEntries() const { return m_u32NumEntries; }

private:
    std::unique_ptr<T *[]> m_pHashTable;
    UInt32 m_u32Size;
    UInt32 m_u32Mask; /* 0 unless the size is a power of two */
    UInt32 m_u32NumEntries;
};

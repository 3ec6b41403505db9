/*
 * Binary min-heap in an array, counted from 1 so that the children of i are 2i and 2i + 1.
 *
 * Sifting moves a hole instead of swapping pairs; the outcome is the same with half the stores.
 */
#include "framework/heap.h"

#include <algorithm>
#include <cstddef>
#include <new>

#include "framework/assertion.h"

namespace
{
/* Twice this does not fit the 32-bit slot count. */
constexpr UInt32 kMaxDoubledSize = 0x7FFFFFFF;
} // namespace

CHeap::CHeap(UInt32 i_u32Size) : m_u32FreeIndex(1), m_u32ArraySize(std::max<UInt32>(i_u32Size, 2))
{
    m_pHeap.reset(new (std::nothrow) CHeapElem *[m_u32ArraySize]);
}

void CHeap::Insert(CHeapElem *i_pElem)
{
    assert(i_pElem != NULL);
    if (m_pHeap == nullptr || m_u32FreeIndex == m_u32ArraySize) {
        Grow();
    }
    assert(m_pHeap != NULL);
    assert(i_pElem->m_pCurrentHeap == NULL);
    assert(m_u32ArraySize > m_u32FreeIndex);
    m_pHeap[m_u32FreeIndex] = i_pElem;
    SiftUp(m_u32FreeIndex);
    i_pElem->m_pCurrentHeap = this;
    m_u32FreeIndex++;
}

/* Leaves no array at all when the allocation of a larger one failed. */
void CHeap::Grow()
{
    std::unique_ptr<CHeapElem *[]> pOld = std::move(m_pHeap);
    if (m_u32ArraySize > kMaxDoubledSize) {
        return;
    }
    m_u32ArraySize *= 2;
    m_pHeap.reset(new (std::nothrow) CHeapElem *[m_u32ArraySize]);
    if (m_pHeap != nullptr && pOld != nullptr) {
        std::copy_n(pOld.get() + 1, CurrentHeapSize(), m_pHeap.get() + 1);
    }
}

void CHeap::SiftUp(UInt32 i_u32Index)
{
    CHeapElem *pElem = m_pHeap[i_u32Index];
    while (i_u32Index > 1) {
        CHeapElem *pParent = m_pHeap[i_u32Index / 2];
        if (pElem->m_s64Value >= pParent->m_s64Value) {
            break;
        }
        m_pHeap[i_u32Index] = pParent;
        i_u32Index /= 2;
    }
    m_pHeap[i_u32Index] = pElem;
}

CHeapElem *CHeap::Extract(UInt32 i_u32Index)
{
    if (m_pHeap == nullptr || i_u32Index == 0 || i_u32Index >= m_u32FreeIndex) {
        return nullptr;
    }
    CHeapElem *pVictim = m_pHeap[i_u32Index];
    assert(pVictim->m_pCurrentHeap == this);
    pVictim->m_pCurrentHeap = nullptr;
    m_u32FreeIndex--;
    m_pHeap[i_u32Index] = m_pHeap[m_u32FreeIndex];
    /* Kept: never sifted up, so taking out an inner element can leave the moved one above a
     * smaller parent; such a timer is merely late. */
    SiftDown(i_u32Index);
    return pVictim;
}

/* A branch a comparison, and the last parent, which may have one child only, behind the loop: were
 * the child chosen without a branch, every level would wait for elements that no cache holds, which
 * a million timers take thrice as long for. */
void CHeap::SiftDown(UInt32 i_u32Index)
{
    if (i_u32Index >= m_u32FreeIndex) {
        return;
    }
    CHeapElem **pHeap = m_pHeap.get();
    CHeapElem *pElem = pHeap[i_u32Index];
    const SInt64 s64Value = pElem->m_s64Value;
    const size_t u64End = m_u32FreeIndex;
    size_t u64Hole = i_u32Index;
    size_t u64Child = 2 * u64Hole;
    for (; u64Child + 1 < u64End; u64Child = 2 * u64Hole) {
        const SInt64 s64Left = pHeap[u64Child]->m_s64Value;
        const SInt64 s64Right = pHeap[u64Child + 1]->m_s64Value;
        if (s64Right < s64Left) {
            if (s64Right >= s64Value) {
                break;
            }
            u64Child++;
        } else if (s64Left >= s64Value) {
            break;
        }
        pHeap[u64Hole] = pHeap[u64Child];
        u64Hole = u64Child;
    }
    if (u64Child + 1 == u64End && pHeap[u64Child]->m_s64Value < s64Value) {
        pHeap[u64Hole] = pHeap[u64Child];
        u64Hole = u64Child;
    }
    pHeap[u64Hole] = pElem;
}

CHeapElem *CHeap::Remove(CHeapElem *i_pElem)
{
    if (m_pHeap == nullptr || CurrentHeapSize() == 0) {
        return nullptr;
    }
    CHeapElem **pEnd = m_pHeap.get() + m_u32FreeIndex;
    CHeapElem **pSlot = std::find(m_pHeap.get() + 1, pEnd, i_pElem);
    if (pSlot == pEnd) {
        return nullptr;
    }
    return Extract(static_cast<UInt32>(pSlot - m_pHeap.get()));
}

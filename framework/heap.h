/*
 * Intrusive binary min-heap over 64-bit keys, used as a timer queue.
 *
 * An object carries a CHeapElem inside itself and names itself as the enclosing object. The heap
 * owns an array of pointers only: an element must be taken out before it is destroyed, while a
 * heap may be destroyed with elements in it if nobody uses those afterwards.
 *
 * Unsynchronised: the owner locks.
 */
#pragma once

#include <memory>

#include "framework/types.h"

class CHeap;

class CHeapElem
{
public:
    /* i_pEnclosingObject: the object that embeds this element; may be null. */
    explicit CHeapElem(void *i_pEnclosingObject = nullptr)
        : m_s64Value(0), m_pEnclosingObject(i_pEnclosingObject), m_pCurrentHeap(nullptr)
    {
    }
    ~CHeapElem() {}
    CHeapElem(const CHeapElem &) = delete;
    CHeapElem &operator=(const CHeapElem &) = delete;

    /* The key; for timers the deadline in monotonic milliseconds. Not to be changed while a heap
     * holds the element. */
    void SetValue(SInt64 i_s64Value) { m_s64Value = i_s64Value; }
    SInt64 GetValue() const { return m_s64Value; }
    void *GetEnclosingObject() const { return m_pEnclosingObject; }

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    void SetEnclosingObject(void *i_pEnclosingObject) { m_pEnclosingObject = i_pEnclosingObject; }
    Bool IsMemberOfAnyHeap() const { return m_pCurrentHeap != nullptr; }

private:
    friend class CHeap;

    SInt64 m_s64Value;
    void *m_pEnclosingObject;
    CHeap *m_pCurrentHeap;
};

class CHeap
{
public:
    /* i_u32Size: slots to start with, at least 2 are made; slot 0 holds nothing. */
    explicit CHeap(UInt32 i_u32Size);
    CHeap(const CHeap &) = delete;
    CHeap &operator=(const CHeap &) = delete;

    /* Asserts that the element is in no heap, and that no allocation of a larger array failed. */
    void Insert(CHeapElem *i_pElem);
    /* Takes out the element in a slot (1 is the root); null if the slot is not in use. */
    CHeapElem *Extract(UInt32 i_u32Index);
    /* The element with the smallest key; null when empty. */
    CHeapElem *ExtractMin() { return Extract(1); }
    CHeapElem *PeekMin() const { return CurrentHeapSize() > 0 ? m_pHeap[1] : nullptr; }
    /* Takes the element out, by a linear search; null if it is not here. */
    CHeapElem *Remove(CHeapElem *i_pElem);
    UInt32 CurrentHeapSize() const { return m_u32FreeIndex - 1; }

private:
    void Grow();
    void SiftUp(UInt32 i_u32Index);
    void SiftDown(UInt32 i_u32Index);

    std::unique_ptr<CHeapElem *[]> m_pHeap;
    UInt32 m_u32FreeIndex;
    UInt32 m_u32ArraySize;
};

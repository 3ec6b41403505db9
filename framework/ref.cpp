/*
 * Reference table.
 */
#include "framework/ref.h"

#include <cstddef>

#include "framework/assertion.h"

UInt32 CRefTableUtils::HashString(const CPLString *i_pPLString)
{
    assert(i_pPLString != NULL);
    assert(i_pPLString->m_pPtr != NULL);
    assert(i_pPLString->m_u32Len > 0);
    const UInt8 *pBytes = reinterpret_cast<const UInt8 *>(i_pPLString->m_pPtr);
    UInt32 u32Len = i_pPLString->m_u32Len;
    std::size_t u64Quarter = u32Len / 4;
    return u32Len * (pBytes[0] + pBytes[u64Quarter] + pBytes[2 * u64Quarter] +
                     pBytes[3 * u64Quarter] + static_cast<UInt32>(pBytes[u32Len - 1]));
}

void CRef::Set(const CPLString &i_refString, void *i_pObject)
{
    m_objString = i_refString;
    m_pObject = i_pObject;
    m_u32HashValue = CRefTableUtils::HashString(&m_objString);
}

OS_Error CRefTable::Register(CRef *i_pRef)
{
    assert(i_pRef != NULL);
    CMutexLocker objLocker(&m_objMutex);
    assert(i_pRef->m_u32RefCount == 0);
    assert(i_pRef->m_objString.m_pPtr != NULL);
    assert(i_pRef->m_objString.m_u32Len != 0);
    CRefKey objKey(i_pRef);
    if (m_objTable.Map(&objKey) != nullptr) {
        return 1;
    }
    m_objTable.Add(i_pRef);
    return 0;
}

CRef *CRefTable::Resolve(const CPLString *i_refPLString)
{
    assert(i_refPLString != NULL);
    CRefKey objKey(i_refPLString);
    CMutexLocker objLocker(&m_objMutex);
    CRef *i_pRef = m_objTable.Map(&objKey);
    if (i_pRef != nullptr) {
        i_pRef->m_u32RefCount++;
        assert(i_pRef->m_u32RefCount > 0);
    }
    return i_pRef;
}

void CRefTable::Release(CRef *i_pRef)
{
    assert(i_pRef != NULL);
    CMutexLocker objLocker(&m_objMutex);
    i_pRef->m_u32RefCount--;
    /* A release too many wraps to a huge count. */
    assert(i_pRef->m_u32RefCount < 1048576L);
    /* Under the mutex: the entry may be destroyed as soon as UnRegister() gets it. */
    i_pRef->m_objCond.Signal();
}

void CRefTable::UnRegister(CRef *i_pRef, UInt32 i_u32RefCount)
{
    assert(i_pRef != NULL);
    CMutexLocker objLocker(&m_objMutex);
    while (i_pRef->m_u32RefCount > i_u32RefCount) {
        i_pRef->m_objCond.Wait(&m_objMutex, 0);
    }
    m_objTable.Remove(i_pRef);
}

CRef *CRefTable::RegisterOrResolve(CRef *i_pRef)
{
    assert(i_pRef != NULL);
    CMutexLocker objLocker(&m_objMutex);
    assert(i_pRef->m_u32RefCount == 0);
    CRef *pFound = Resolve(&i_pRef->m_objString);
    if (pFound == nullptr) {
        m_objTable.Add(i_pRef);
    }
    return pFound;
}

Bool CRefTable::TryUnRegister(CRef *i_pRef, UInt32 i_u32RefCount)
{
    assert(i_pRef != NULL);
    CMutexLocker objLocker(&m_objMutex);
    if (i_pRef->m_u32RefCount > i_u32RefCount) {
        return false;
    }
    UnRegister(i_pRef, i_u32RefCount);
    return true;
}

void CRefTable::Swap(CRef *i_pNewRef)
{
    assert(i_pNewRef != NULL);
    CMutexLocker objLocker(&m_objMutex);
    CRefKey objKey(i_pNewRef);
    CRef *pOldRef = m_objTable.Map(&objKey);
    if (pOldRef == nullptr) {
        assert(0);
    }
    m_objTable.Remove(pOldRef);
    m_objTable.Add(i_pNewRef);
}

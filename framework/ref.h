/*
 * Table of named objects that several threads look up and one takes away.
 *
 * A CRef is embedded in the object it names. Whoever resolved a name holds the object until it
 * releases it, and UnRegister() waits for that, so an object is never destroyed under its user.
 * Every operation of CRefTable may be called from any thread; the table's mutex guards the table,
 * the counts and the chain links.
 */
#pragma once

#include "framework/cond.h"
#include "framework/hashtable.h"
#include "framework/mutex.h"
#include "framework/plstring.h"
#include "framework/types.h"

class CRefTableUtils
{
public:
    /* Hash of a non-empty string: five of its bytes, times its length. */
    static UInt32 HashString(const CPLString *i_pPLString);
};

class CRef
{
public:
    CRef() : m_pObject(nullptr), m_u32RefCount(0), m_u32HashValue(0), m_pNextHashEntry(nullptr) {}
    CRef(const CRef &) = delete;
    CRef &operator=(const CRef &) = delete;

    /* Names the object. The name's bytes are not copied: they must outlive the registration. Not
     * to be called while a table holds the entry. */
    void Set(const CPLString &i_refString, void *i_pObject);
    void *GetObject() const { return m_pObject; }

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    CRef(const CPLString &i_refString, void *i_pObject) : CRef() { Set(i_refString, i_pObject); }
    const CPLString *GetString() const { return &m_objString; }

private:
    friend class CRefKey;
    friend class CRefTable;
    template <class T, class K> friend class CHashTable;

    void *m_pObject;
    CPLString m_objString;
    UInt32 m_u32RefCount;
    CCond m_objCond; /* signalled whenever the count drops */
    UInt32 m_u32HashValue;
    CRef *m_pNextHashEntry;
};

class CRefKey
{
public:
    explicit CRefKey(const CPLString *i_pString)
        : m_pString(i_pString), m_u32HashValue(CRefTableUtils::HashString(i_pString))
    {
    }
    explicit CRefKey(const CRef *i_pRef)
        : m_pString(&i_pRef->m_objString), m_u32HashValue(i_pRef->m_u32HashValue)
    {
    }

    UInt32 GetHashKey() const { return m_u32HashValue; }
    Bool operator==(const CRefKey &i_refKey) const { return m_pString->Equal(*i_refKey.m_pString); }

private:
    const CPLString *m_pString;
    UInt32 m_u32HashValue;
};

class CRefTable
{
public:
    /* i_u32Size: number of buckets, above 0. */
    explicit CRefTable(UInt32 i_u32Size) : m_objTable(i_u32Size) {}

    /* 0, or 1 if an entry with this name is in the table already. */
    OS_Error Register(CRef *i_pRef);
    /* The entry with this name, to be released by the caller; null if there is none. */
    CRef *Resolve(const CPLString *i_refPLString);
    /* Gives back what Resolve() returned. The entry may be gone when this returns. */
    void Release(CRef *i_pRef);
    /* Waits without limit until at most i_u32RefCount resolvers hold the entry, then takes it out
     * of the table; it may be resolved anew meanwhile. */
    void UnRegister(CRef *i_pRef, UInt32 i_u32RefCount = 0);

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* Adds the entry and returns null, or returns the one that has its name already, to be
     * released by the caller. */
    CRef *RegisterOrResolve(CRef *i_pRef);
    /* False, at once, where UnRegister() would wait. */
    Bool TryUnRegister(CRef *i_pRef, UInt32 i_u32RefCount = 0);
    /* Puts the entry in the place of the one that has its name; asserts that there is one. */
    void Swap(CRef *i_pNewRef);

private:
    CHashTable<CRef, CRefKey> m_objTable;
    CMutex m_objMutex;
};

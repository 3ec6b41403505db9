/*
 * Lock-based atomics.
 *
 * The mutex is never destroyed: framework threads that never end still use it while the process
 * runs its exit handlers.
 */
#include "framework/atomic.h"

#include "framework/mutex.h"

namespace
{
CMutex &g_objAtomicMutex = *new CMutex;
} // namespace

UInt32 atomic_add(UInt32 *i_pArea, SInt32 i_s32Amount)
{
    CMutexLocker objLocker(&g_objAtomicMutex);
    *i_pArea += static_cast<UInt32>(i_s32Amount);
    return *i_pArea;
}

UInt32 atomic_sub(UInt32 *i_pArea, SInt32 i_s32Amount)
{
    /* Negated as unsigned: the negative of the smallest amount does not fit a signed word. */
    return atomic_add(i_pArea, static_cast<SInt32>(0U - static_cast<UInt32>(i_s32Amount)));
}

UInt32 atomic_or(UInt32 *i_pArea, UInt32 i_u32Bits)
{
    CMutexLocker objLocker(&g_objAtomicMutex);
    UInt32 u32Old = *i_pArea;
    *i_pArea = u32Old | i_u32Bits;
    return u32Old;
}

Bool compare_and_store(UInt32 i_u32Old, UInt32 i_u32New, UInt32 *i_pArea)
{
    CMutexLocker objLocker(&g_objAtomicMutex);
    if (*i_pArea != i_u32Old) {
        return false;
    }
    *i_pArea = i_u32New;
    return true;
}

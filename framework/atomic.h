/*
 * Integer operations that are atomic with respect to one another.
 *
 * They are serialised by one process-wide mutex, not by the processor: a plain read or write of
 * the same word elsewhere is not covered. May be called from any thread, from the start of main to
 * the very end of the process.
 */
#pragma once

#include "framework/types.h"

/* Adds i_s32Amount to *i_pArea (modulo 2^32) and returns the new value. */
UInt32 atomic_add(UInt32 *i_pArea, SInt32 i_s32Amount);
/* Subtracts likewise and returns the new value. */
UInt32 atomic_sub(UInt32 *i_pArea, SInt32 i_s32Amount);
/* Ors i_u32Bits into *i_pArea and returns the old value. */
UInt32 atomic_or(UInt32 *i_pArea, UInt32 i_u32Bits);
/* Stores i_u32New in *i_pArea and returns true if it held i_u32Old; else returns false. */
Bool compare_and_store(UInt32 i_u32Old, UInt32 i_u32New, UInt32 *i_pArea);

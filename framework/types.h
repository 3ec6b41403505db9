/*
 * Fixed-width type names used throughout the daemon.
 *
 * The names say what stands in a record that crosses a module or process border, where the width
 * is part of the contract; everything else may use the language's own types.
 */
#pragma once

#include <cstdint>

using UInt8 = std::uint8_t;
using UInt16 = std::uint16_t;
using UInt32 = std::uint32_t;
using UInt64 = std::uint64_t;
using SInt8 = std::int8_t;
using SInt16 = std::int16_t;
using SInt32 = std::int32_t;
using SInt64 = std::int64_t;
using Bool = bool;

/* errno-style result of the framework: 0 success, else an errno value. */
using OS_Error = SInt32;

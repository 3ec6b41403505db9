/*
 * Base64 (RFC 4648) of a parameter set. Pure function, any thread.
 */
#pragma once

#include <span>
#include <string>

#include "framework/types.h"

std::string Base64(std::span<const UInt8> i_objBytes);

/*
 * Base64 (RFC 4648) of a parameter set. Pure functions, any thread.
 */
#pragma once

#include <span>
#include <string>
#include <vector>

#include "framework/types.h"

std::string Base64(std::span<const UInt8> i_objBytes);
/* Empty for a text that Base64() does not write. */
std::vector<UInt8> FromBase64(const std::string &i_strText);

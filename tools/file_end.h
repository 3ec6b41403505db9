/*
 * The end of a file that may be long, as a log is.
 */
#pragma once

#include <optional>
#include <string>

/* At most the last i_u64Limit bytes of a regular file or of one of proc(5); none if it cannot be
 * read, and errno says why. */
std::optional<std::string> ReadEnd(const std::string &i_strPath, std::size_t i_u64Limit);

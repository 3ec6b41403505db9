/*
 * Whole small files, read with a limit and replaced at one stroke.
 */
#pragma once

#include <optional>
#include <string>

/* The content of a regular file or of one of proc(5); none if it cannot be read or is longer than
 * the limit, in bytes. errno says why. */
std::optional<std::string> ReadFile(const std::string &i_strPath, std::size_t i_u64Limit);
/* A reader sees the old content or the new one, never a part. Mode 0644. 0 or errno. */
int ReplaceFile(const std::string &i_strPath, const std::string &i_strText);

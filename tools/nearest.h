/*
 * "Did you mean": the known word that a mistyped one is closest to.
 */
#pragma once

#include <string>
#include <vector>

/* The candidate with the fewest edits (insert, delete, replace, ignoring case), the first of
 * several; "" if even that one needs more edits than half of the word's letters. */
std::string NearestWord(const std::string &i_strWord,
                        const std::vector<std::string> &i_strCandidates);

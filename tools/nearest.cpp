/*
 * "Did you mean".
 */
#include "tools/nearest.h"

#include <algorithm>
#include <cctype>
#include <numeric>

namespace
{
/* Levenshtein's distance, a row of the table at a time. */
std::size_t Edits(const std::string &i_strFrom, const std::string &i_strTo)
{
    std::vector<std::size_t> u64Row(i_strTo.size() + 1);
    std::iota(u64Row.begin(), u64Row.end(), std::size_t{0});
    for (std::size_t i = 0; i < i_strFrom.size(); i++) {
        std::size_t u64Diagonal = u64Row[0];
        u64Row[0] = i + 1;
        for (std::size_t j = 0; j < i_strTo.size(); j++) {
            const bool bSame = std::tolower(static_cast<unsigned char>(i_strFrom[i])) ==
                               std::tolower(static_cast<unsigned char>(i_strTo[j]));
            const std::size_t u64Replaced = u64Diagonal + (bSame ? 0 : 1);
            u64Diagonal = u64Row[j + 1];
            u64Row[j + 1] = std::min({u64Replaced, u64Row[j] + 1, u64Row[j + 1] + 1});
        }
    }
    return u64Row.back();
}
} // namespace

std::string NearestWord(const std::string &i_strWord,
                        const std::vector<std::string> &i_strCandidates)
{
    constexpr std::size_t kLongest = 64; /* no known word is that long */
    std::string strBest;
    std::size_t u64Least = i_strWord.size() / 2 + 1;
    for (const std::string &strCandidate : i_strCandidates) {
        const std::size_t u64Edits =
            i_strWord.size() > kLongest ? u64Least : Edits(i_strWord, strCandidate);
        if (u64Edits < u64Least) {
            u64Least = u64Edits;
            strBest = strCandidate;
        }
    }
    return strBest;
}

#include "guard/base64.h"

#include <algorithm>

std::string Base64(std::span<const UInt8> i_objBytes)
{
    constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string strText;
    for (std::size_t i = 0; i < i_objBytes.size(); i += 3) {
        const std::size_t u64Left = std::min<std::size_t>(i_objBytes.size() - i, 3);
        UInt32 u32Group = 0;
        for (std::size_t j = 0; j < 3; j++) {
            u32Group = u32Group << 8 | (j < u64Left ? i_objBytes[i + j] : 0U);
        }
        for (std::size_t j = 0; j < 4; j++) {
            strText += j <= u64Left ? kDigits[u32Group >> (18 - 6 * j) & 63] : '=';
        }
    }
    return strText;
}

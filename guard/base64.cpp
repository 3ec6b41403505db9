#include "guard/base64.h"

#include <algorithm>
#include <string_view>

namespace
{
constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
} // namespace

std::string Base64(std::span<const UInt8> i_objBytes)
{
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

std::vector<UInt8> FromBase64(const std::string &i_strText)
{
    std::vector<UInt8> objBytes;
    UInt32 u32Bits = 0;
    unsigned u32Count = 0;
    for (const char cDigit : i_strText.substr(0, i_strText.find('='))) {
        const std::size_t u64Value = std::string_view(kDigits).find(cDigit);
        if (u64Value == std::string_view::npos) {
            return {};
        }
        u32Bits = (u32Bits << 6 | static_cast<UInt32>(u64Value)) & 0xFFFFFF;
        u32Count += 6;
        if (u32Count >= 8) {
            u32Count -= 8;
            objBytes.push_back(static_cast<UInt8>(u32Bits >> u32Count));
        }
    }
    return Base64(objBytes) == i_strText ? objBytes : std::vector<UInt8>();
}

/*
 * Box parser on arbitrary bytes: whatever was received, the records lie within the buffer, can be
 * read at every width, and survive being put into a box of their own.
 */
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "framework/assertion.h"
#include "tlv/tlv_box.h"

namespace
{
constexpr int kNesting = 4;

template <typename T, int (*Get)(const tlv_box *, std::uint32_t, T *)>
void CheckNumber(const tlv_box *i_pBox, const tlv *i_pRecord)
{
    T xValue = {};
    assert(Get(i_pBox, i_pRecord->type, &xValue) == 0);
    const std::size_t u64Sent = i_pRecord->length;
    const auto *pBytes = reinterpret_cast<const unsigned char *>(&xValue);
    for (std::size_t i = 0; i < sizeof(T); i++) {
        assert(pBytes[i] == (i < u64Sent ? i_pRecord->value[i] : 0));
    }
}

void CheckRecord(const tlv_box *i_pBox, const tlv *i_pRecord)
{
    const unsigned char *pBuffer = tlv_box_get_buffer(i_pBox);
    const unsigned char *pValue = i_pRecord->value;
    const auto s32Length = static_cast<int>(i_pRecord->length);
    assert(pValue >= pBuffer + 8 && pValue + s32Length <= pBuffer + tlv_box_get_size(i_pBox));
    CheckNumber<char, tlv_box_get_char>(i_pBox, i_pRecord);
    CheckNumber<short, tlv_box_get_short>(i_pBox, i_pRecord);
    CheckNumber<int, tlv_box_get_int>(i_pBox, i_pRecord);
    CheckNumber<long long, tlv_box_get_longlong>(i_pBox, i_pRecord);

    char szText[128];
    int s32Capacity = sizeof(szText);
    const int s32Result = tlv_box_get_string(i_pBox, i_pRecord->type, szText, &s32Capacity);
    assert(s32Result == (s32Length <= 128 ? 0 : -1));
    assert(s32Result != 0 || memcmp(szText, pValue, static_cast<std::size_t>(s32Length)) == 0);
}

void CheckBox(const unsigned char *i_pData, std::size_t i_u64Size, int i_s32Nesting)
{
    tlv_box *pBox = tlv_box_parse(i_pData, static_cast<int>(i_u64Size));
    assert(pBox != nullptr && tlv_box_get_size(pBox) == static_cast<int>(i_u64Size));
    tlv_box *pCopy = tlv_box_create();
    std::size_t u64Offset = 0;
    std::size_t u64Kept = 0;
    while (i_u64Size - u64Offset >= 8) {
        std::uint32_t u32Header[2];
        memcpy(u32Header, i_pData + u64Offset, sizeof(u32Header));
        if (u32Header[1] > i_u64Size - u64Offset - 8) {
            break;
        }
        const tlv *pRecord = tlv_box_get_node(pBox, u32Header[0]);
        assert(pRecord != nullptr && pRecord->type == u32Header[0]);
        CheckRecord(pBox, pRecord);
        const bool bFirst = pRecord->value == tlv_box_get_buffer(pBox) + u64Offset + 8;
        const int s32Put = tlv_box_put_bytes(pCopy, u32Header[0], i_pData + u64Offset + 8,
                                             static_cast<int>(u32Header[1]));
        assert(s32Put == (bFirst ? 0 : -1));
        u64Kept += bFirst ? 8 + u32Header[1] : 0;
        if (bFirst && i_s32Nesting > 0) {
            CheckBox(pRecord->value, pRecord->length, i_s32Nesting - 1);
        }
        u64Offset += 8 + u32Header[1];
    }
    assert(tlv_box_serialize(pCopy) == 0);
    assert(tlv_box_get_size(pCopy) == static_cast<int>(u64Kept));
    tlv_box_destroy(pCopy);
    tlv_box_destroy(pBox);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *i_pData, std::size_t i_u64Size)
{
    CheckBox(i_pData, i_u64Size, kNesting);
    return 0;
}

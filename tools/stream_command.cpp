/*
 * The stream command on the wire.
 */
#include "tools/stream_command.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "tlv/tlv_box_ptr.h"

namespace
{
/* Every type is put once and nothing is large, so only memory can be the reason. */
void Require(int i_s32Result)
{
    if (i_s32Result != 0) {
        throw std::bad_alloc();
    }
}

void PutValue(tlv_box *i_pBox, UInt32 i_u32Type, const CFieldValue &i_xValue)
{
    if (const auto *pText = std::get_if<std::string>(&i_xValue)) {
        Require(tlv_box_put_string(i_pBox, i_u32Type, pText->c_str()));
    } else if (const auto *pFlag = std::get_if<Bool>(&i_xValue)) {
        Require(tlv_box_put_int(i_pBox, i_u32Type, *pFlag ? 1 : 0));
    } else {
        Require(tlv_box_put_int(i_pBox, i_u32Type, std::get<SInt32>(i_xValue)));
    }
}

std::optional<CFieldValue> ReadValue(SettingKind i_eKind, const tlv *i_pRecord)
{
    const char *pBytes = reinterpret_cast<const char *>(i_pRecord->value);
    const std::size_t u64Length = i_pRecord->length;
    if (i_eKind == SettingKind::Number) {
        SInt32 s32Value = 0;
        if (u64Length != sizeof(s32Value)) {
            return std::nullopt;
        }
        memcpy(&s32Value, pBytes, sizeof(s32Value));
        return s32Value;
    }
    /* The text ends at its zero; a sender that forgot it is read to the end of the record. */
    const std::string strText(pBytes, strnlen(pBytes, u64Length));
    if (i_eKind == SettingKind::Mode) {
        return strText;
    }
    if (strText != "true" && strText != "false") {
        return std::nullopt;
    }
    return strText == "true";
}
} // namespace

std::string EncodeStreamCommand(const CFieldAsks &i_objAsks, const CFieldValues &i_objSets)
{
    const CBoxPtr pNested(tlv_box_create());
    const CBoxPtr pOuter(tlv_box_create());
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objAsks[i]) {
            Require(tlv_box_put_int(pNested.get(), STREAM_SETTINGS[i].u32Ask, 1));
        }
    }
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objSets[i]) {
            PutValue(pNested.get(), STREAM_SETTINGS[i].u32Set, *i_objSets[i]);
        }
    }
    Require(tlv_box_serialize(pNested.get()));
    Require(tlv_box_put_object(pOuter.get(), STREAM_COMMAND_RECORD, pNested.get()));
    Require(tlv_box_serialize(pOuter.get()));
    return {reinterpret_cast<const char *>(tlv_box_get_buffer(pOuter.get())),
            static_cast<std::size_t>(tlv_box_get_size(pOuter.get()))};
}

std::optional<CFieldValues> DecodeStreamReply(const std::string &i_strBytes)
{
    const CBoxPtr pOuter(tlv_box_parse(i_strBytes.data(), static_cast<int>(i_strBytes.size())));
    tlv_box *pObject = nullptr;
    if (tlv_box_get_object(pOuter.get(), STREAM_COMMAND_RECORD, &pObject) != 0) {
        return std::nullopt;
    }
    const CBoxPtr pNested(pObject);
    CFieldValues objValues;
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        const tlv *pRecord = tlv_box_get_node(pNested.get(), STREAM_SETTINGS[i].u32Ask);
        if (pRecord == nullptr) {
            continue;
        }
        objValues[i] = ReadValue(STREAM_SETTINGS[i].eKind, pRecord);
        if (!objValues[i]) {
            return std::nullopt;
        }
    }
    const bool bAny = std::any_of(objValues.begin(), objValues.end(),
                                  [](const auto &i_objValue) { return i_objValue.has_value(); });
    return bAny ? std::optional(objValues) : std::nullopt;
}

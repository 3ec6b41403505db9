#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

#include "tlv/key_list.h"
#include "tlv/tlv_box_ptr.h"

namespace
{
using CBox = CBoxPtr;
using CBytes = std::vector<unsigned char>;

CBox Building()
{
    return CBox(tlv_box_create());
}

/* From a heap block of exactly the input's size, so that a read past its end is noticed. */
CBox Parsed(const CBytes &i_objBytes)
{
    return CBox(tlv_box_parse(i_objBytes.data(), static_cast<int>(i_objBytes.size())));
}

CBytes Serialised(tlv_box *i_pBox)
{
    EXPECT_EQ(tlv_box_serialize(i_pBox), 0);
    const unsigned char *pBytes = tlv_box_get_buffer(i_pBox);
    return {pBytes, pBytes + tlv_box_get_size(i_pBox)};
}

/* The value of an existing record. */
template <auto Get, typename T>
void ExpectNumber(const CBox &i_pBox, std::uint32_t i_u32Type, T i_xValue)
{
    T xValue = {};
    EXPECT_EQ(Get(i_pBox.get(), i_u32Type, &xValue), 0);
    EXPECT_EQ(xValue, i_xValue);
}

TEST(TlvBoxTest, EveryValueHasItsBytesOnTheWire)
{
    CBox pNested = Building();
    EXPECT_EQ(tlv_box_put_int(pNested.get(), 0x20001, 30), 0);
    ASSERT_EQ(tlv_box_serialize(pNested.get()), 0);
    const unsigned char u8Bytes[] = {0xDE, 0xAD, 0x00};

    CBox pBox = Building();
    EXPECT_EQ(tlv_box_put_char(pBox.get(), 1, 'A'), 0);
    EXPECT_EQ(tlv_box_put_short(pBox.get(), 2, -2), 0);
    EXPECT_EQ(tlv_box_put_int(pBox.get(), 0xFFFFFFFE, 0x01020304), 0);
    EXPECT_EQ(tlv_box_put_long(pBox.get(), 4, -1), 0);
    EXPECT_EQ(tlv_box_put_longlong(pBox.get(), 5, 0x0102030405060708), 0);
    EXPECT_EQ(tlv_box_put_float(pBox.get(), 6, 1.0F), 0);
    EXPECT_EQ(tlv_box_put_double(pBox.get(), 7, -2.0), 0);
    EXPECT_EQ(tlv_box_put_string(pBox.get(), 8, "cbr"), 0);
    EXPECT_EQ(tlv_box_put_bytes(pBox.get(), 9, u8Bytes, 3), 0);
    EXPECT_EQ(tlv_box_put_bytes(pBox.get(), 10, u8Bytes, 0), 0);
    EXPECT_EQ(tlv_box_put_object(pBox.get(), 3, pNested.get()), 0);
    EXPECT_EQ(tlv_box_get_size(pBox.get()), 142);
    EXPECT_EQ(tlv_box_get_buffer(pBox.get()), nullptr);

    const CBytes objExpected = {
        1,    0,    0,    0,    1,  0, 0, 0, 'A',                                         //
        2,    0,    0,    0,    2,  0, 0, 0, 0xFE, 0xFF,                                  //
        0xFE, 0xFF, 0xFF, 0xFF, 4,  0, 0, 0, 4,    3,    2,    1,                         //
        4,    0,    0,    0,    8,  0, 0, 0, 255,  255,  255,  255,  255, 255, 255, 255,  //
        5,    0,    0,    0,    8,  0, 0, 0, 8,    7,    6,    5,    4,   3,   2,   1,    //
        6,    0,    0,    0,    4,  0, 0, 0, 0,    0,    0x80, 0x3F,                      //
        7,    0,    0,    0,    8,  0, 0, 0, 0,    0,    0,    0,    0,   0,   0,   0xC0, //
        8,    0,    0,    0,    4,  0, 0, 0, 'c',  'b',  'r',  0,                         //
        9,    0,    0,    0,    3,  0, 0, 0, 0xDE, 0xAD, 0x00,                            //
        10,   0,    0,    0,    0,  0, 0, 0,                                              //
        3,    0,    0,    0,    12, 0, 0, 0, 1,    0,    2,    0,    4,   0,   0,   0,
        30,   0,    0,    0};
    EXPECT_EQ(Serialised(pBox.get()), objExpected);

    CBox pRead = Parsed(objExpected);
    ExpectNumber<tlv_box_get_char>(pRead, 1, 'A');
    ExpectNumber<tlv_box_get_short>(pRead, 2, short(-2));
    ExpectNumber<tlv_box_get_int>(pRead, 0xFFFFFFFE, 0x01020304);
    ExpectNumber<tlv_box_get_long>(pRead, 4, -1L);
    ExpectNumber<tlv_box_get_longlong>(pRead, 5, 0x0102030405060708LL);
    ExpectNumber<tlv_box_get_float>(pRead, 6, 1.0F);
    ExpectNumber<tlv_box_get_double>(pRead, 7, -2.0);

    tlv_box *pObject = nullptr;
    ASSERT_EQ(tlv_box_get_object(pRead.get(), 3, &pObject), 0);
    CBox pOwned(pObject);
    pRead.reset();
    ExpectNumber<tlv_box_get_int>(pOwned, 0x20001, 30);
    EXPECT_EQ(tlv_box_put_int(pObject, 1, 1), -1);
}

TEST(TlvBoxTest, ASecondRecordOfATypeIsRefusedOrDropped)
{
    CBox pBox = Building();
    EXPECT_EQ(tlv_box_put_int(pBox.get(), 7, 1), 0);
    EXPECT_EQ(tlv_box_put_string(pBox.get(), 7, "longer than before"), -1);
    EXPECT_EQ(tlv_box_get_size(pBox.get()), 12);
    EXPECT_EQ(tlv_box_put_int(pBox.get(), 6, 2), 0);
    EXPECT_EQ(Serialised(pBox.get()), (CBytes{7, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0, //
                                              6, 0, 0, 0, 4, 0, 0, 0, 2, 0, 0, 0}));

    const CBytes objTwice = {7, 0, 0, 0, 1, 0, 0, 0, 1, //
                             7, 0, 0, 0, 1, 0, 0, 0, 2, //
                             8, 0, 0, 0, 1, 0, 0, 0, 3};
    CBox pRead = Parsed(objTwice);
    ExpectNumber<tlv_box_get_char>(pRead, 7, '\1');
    ExpectNumber<tlv_box_get_char>(pRead, 8, '\3');
    /* The sealed buffer is the input, dropped records included. */
    EXPECT_EQ(tlv_box_get_size(pRead.get()), 27);
    EXPECT_EQ(memcmp(tlv_box_get_buffer(pRead.get()), objTwice.data(), objTwice.size()), 0);
}

TEST(TlvBoxTest, ASealedBoxTakesNoMore)
{
    const CBox pBoxes[] = {Building(), Parsed({}), CBox(tlv_box_parse("ignored", -5))};
    EXPECT_EQ(tlv_box_serialize(pBoxes[0].get()), 0);
    for (const CBox &pBox : pBoxes) {
        EXPECT_EQ(tlv_box_get_size(pBox.get()), 0);
        EXPECT_NE(tlv_box_get_buffer(pBox.get()), nullptr);
        EXPECT_EQ(tlv_box_put_int(pBox.get(), 1, 1), -1);
        EXPECT_EQ(tlv_box_serialize(pBox.get()), -1);
        EXPECT_EQ(tlv_box_get_node(pBox.get(), 1), nullptr);
    }
    /* An empty box nests too; one that is not serialised does not. */
    const CBox pOuter = Building();
    EXPECT_EQ(tlv_box_put_object(pOuter.get(), 1, Building().get()), -1);
    EXPECT_EQ(tlv_box_put_object(pOuter.get(), 1, pBoxes[0].get()), 0);
    EXPECT_EQ(Serialised(pOuter.get()), (CBytes{1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(TlvBoxTest, ALyingLengthEndsTheParse)
{
    const struct {
        const char *pWhat;
        CBytes objTail;
    } stCases[] = {
        {"seven bytes of a header", {6, 0, 0, 0, 0, 0, 0}},
        {"one byte short", {6, 0, 0, 0, 3, 0, 0, 0, 1, 2}},
        {"8 + length is 0 in 32 bits", {6, 0, 0, 0, 0xF8, 0xFF, 0xFF, 0xFF, 1}},
        {"offset + 8 + length is the start", {6, 0, 0, 0, 0xEE, 0xFF, 0xFF, 0xFF, 1}},
        {"length is -1", {6, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 1}},
        {"length is the sign bit", {6, 0, 0, 0, 0, 0, 0, 0x80, 1}},
    };
    for (const auto &stCase : stCases) {
        SCOPED_TRACE(stCase.pWhat);
        CBytes objBytes = {5, 0, 0, 0, 2, 0, 0, 0, 'h', 'i'};
        objBytes.insert(objBytes.end(), stCase.objTail.begin(), stCase.objTail.end());
        CBox pBox = Parsed(objBytes);
        ASSERT_NE(pBox, nullptr);
        EXPECT_NE(tlv_box_get_node(pBox.get(), 5), nullptr);
        EXPECT_EQ(tlv_box_get_node(pBox.get(), 6), nullptr);
        EXPECT_EQ(tlv_box_get_size(pBox.get()), static_cast<int>(objBytes.size()));
    }
}

TEST(TlvBoxTest, AShortValueIsFilledUpWithZeros)
{
    /* The bytes behind the short values must not show. */
    CBox pBox = Parsed({1, 0, 0, 0, 1, 0, 0, 0, 0x81,                                             //
                        2, 0, 0, 0, 0, 0, 0, 0,                                                   //
                        3, 0, 0, 0, 9, 0, 0, 0, 1,    2,    3,   4, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, //
                        4, 0, 0, 0, 3, 0, 0, 0, 0xFF, 0xFF, 0xFF});
    ExpectNumber<tlv_box_get_int>(pBox, 1, 0x81);
    ExpectNumber<tlv_box_get_int>(pBox, 2, 0);
    ExpectNumber<tlv_box_get_int>(pBox, 3, 0x04030201);
    ExpectNumber<tlv_box_get_long>(pBox, 4, 0xFFFFFFL);
    long s64Value = 77;
    EXPECT_EQ(tlv_box_get_long(pBox.get(), 5, &s64Value), -1);
    EXPECT_EQ(s64Value, 77);
}

TEST(TlvBoxTest, TextsAndBytesNeedTheirCapacity)
{
    CBox pBox = Building();
    tlv_box_put_string(pBox.get(), 1, "cbr");
    const struct {
        int s32Capacity;
        int s32Result;
        const char *pAfter; /* '.' is a zero */
    } stCases[] = {
        {-1, -1, "xxxxxxxx"}, {3, -1, "xxxxxxxx"}, {4, 0, "cbr.xxxx"}, {7, 0, "cbr....x"}};
    for (const auto &stCase : stCases) {
        for (const bool bText : {true, false}) {
            char szText[] = "xxxxxxxx";
            int s32Length = stCase.s32Capacity;
            EXPECT_EQ(bText ? tlv_box_get_string(pBox.get(), 1, szText, &s32Length)
                            : tlv_box_get_bytes(pBox.get(), 1, szText, &s32Length),
                      stCase.s32Result);
            EXPECT_EQ(s32Length, stCase.s32Result == 0 ? 4 : stCase.s32Capacity);
            std::replace(szText, szText + 8, '\0', '.');
            EXPECT_STREQ(szText, stCase.pAfter);
        }
    }
}

TEST(TlvBoxTest, TheSizeNeverOverflows)
{
    /* Refused before a byte is read: there is only one. */
    CBox pBox = Building();
    EXPECT_EQ(tlv_box_put_bytes(pBox.get(), 1, "", INT_MAX), -1);
    EXPECT_EQ(tlv_box_put_bytes(pBox.get(), 1, "", INT_MAX - 7), -1);
    EXPECT_EQ(tlv_box_put_bytes(pBox.get(), 1, "", -1), -1);
    EXPECT_EQ(tlv_box_put_int(pBox.get(), 1, 5), 0);
    EXPECT_EQ(tlv_box_put_bytes(pBox.get(), 2, "", INT_MAX - 8 - 11), -1);
    EXPECT_EQ(tlv_box_get_size(pBox.get()), 12);
    EXPECT_EQ(tlv_box_get_node(pBox.get(), 2), nullptr);
}

TEST(TlvBoxTest, ARecordIsFoundByTheMaskedType)
{
    CBox pBox = Parsed({1, 0, 1, 0, 0, 0, 0, 0,            //
                        2, 0, 2, 0, 1, 0, 0, 0, 0x11,      //
                        2, 0, 1, 0, 2, 0, 0, 0, 0x22, 0}); //
    const tlv *pRecord = tlv_box_get_mask_node(pBox.get(), 2, 0xFFFF);
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(pRecord->type, 0x20002U);
    EXPECT_EQ(pRecord->length, 1U);
    EXPECT_EQ(pRecord->value[0], 0x11);
    EXPECT_EQ(tlv_box_get_mask_node(pBox.get(), 0, 0)->type, 0x10001U);
    EXPECT_EQ(tlv_box_get_mask_node(pBox.get(), 3, 0xFFFF), nullptr);
}

CBytes g_objSent;

TEST(TlvBoxTest, APacketIsABoxInABox)
{
    const auto Send = [](const unsigned char *i_pBuffer, int i_s32Size) {
        g_objSent.assign(i_pBuffer, i_pBuffer + i_s32Size);
    };
    EXPECT_EQ(tlv_packet(4, 0x10001, "ab", 2, Send), 0);
    EXPECT_EQ(g_objSent, (CBytes{4, 0, 0, 0, 10, 0, 0, 0, 1, 0, 1, 0, 2, 0, 0, 0, 'a', 'b'}));
    EXPECT_EQ(tlv_packet(4, 0x10001, "ab", 2, nullptr), 0);
    g_objSent.clear();
    EXPECT_EQ(tlv_packet(4, 0x10001, nullptr, 2, Send), -1);
    EXPECT_EQ(tlv_packet(4, 0x10001, "ab", -2, Send), -1);
    EXPECT_TRUE(g_objSent.empty());
}

TEST(TlvBoxTest, NullIsRefused)
{
    CBox pBox = Building();
    tlv_box *pNull = nullptr;
    EXPECT_EQ(tlv_box_parse(nullptr, 1), nullptr);
    for (int s32Result :
         {tlv_box_destroy(pNull), tlv_box_get_size(pNull), tlv_box_serialize(pNull),
          tlv_box_put_string(pBox.get(), 2, nullptr), tlv_box_put_bytes(pBox.get(), 2, nullptr, 1),
          tlv_box_put_object(pBox.get(), 2, pNull), tlv_box_get_int(pNull, 1, nullptr),
          key_list_add(nullptr, 1, nullptr), key_list_destroy(nullptr)}) {
        EXPECT_EQ(s32Result, -1);
    }
}

TEST(TlvBoxTest, BoxesOfManyRecordsKeepThemAll)
{
    for (std::uint32_t u32Records : {16U, 17U, 33U, 200U}) {
        SCOPED_TRACE(u32Records);
        CBytes objWire;
        CBox pBox = Building();
        const unsigned char *pFirst = nullptr;
        int s32First = 0;
        /* Down and up again; of three lengths, the longest of which have a node to themselves. */
        for (std::uint32_t i = 0; i < u32Records; i++) {
            const std::uint32_t u32Type = i % 2 == 0 ? 1000 - i : 1000 + i;
            const std::uint32_t u32Header[] = {u32Type, i % 3 * 200};
            const CBytes objValue(u32Header[1], static_cast<unsigned char>(i));
            const auto s32Length = static_cast<int>(u32Header[1]);
            ASSERT_EQ(tlv_box_put_bytes(pBox.get(), u32Type, objValue.data(), s32Length), 0);
            ASSERT_EQ(tlv_box_put_int(pBox.get(), u32Type, 0), -1);
            if (i == 1) {
                tlv_box_get_bytes_ptr(pBox.get(), u32Type, &pFirst, &s32First);
                EXPECT_EQ(s32First, 200);
            }
            const auto *pHeader = reinterpret_cast<const unsigned char *>(u32Header);
            objWire.insert(objWire.end(), pHeader, pHeader + 8);
            objWire.insert(objWire.end(), objValue.begin(), objValue.end());
        }
        ASSERT_EQ(Serialised(pBox.get()), objWire);
        EXPECT_EQ(pFirst, tlv_box_get_node(pBox.get(), 1001)->value) << "a value has moved";
        CBox pRead = Parsed(objWire);
        for (std::uint32_t i = 0; i < u32Records; i++) {
            const tlv *pRecord = tlv_box_get_node(pRead.get(), i % 2 == 0 ? 1000 - i : 1000 + i);
            ASSERT_NE(pRecord, nullptr);
            ASSERT_EQ(CBytes(pRecord->value, pRecord->value + pRecord->length),
                      CBytes(i % 3 * 200, static_cast<unsigned char>(i)));
        }
    }
}

std::vector<int> g_objReleased;
void Release(void *i_pValue)
{
    g_objReleased.push_back(*static_cast<int *>(i_pValue));
}

TEST(KeyListTest, KeepsOrderAndReleasesFrontToBack)
{
    key_list *pList = key_list_create(Release);
    int s32Values[] = {0, 1, 2, 77};
    std::uint32_t u32Keys[3] = {};
    void *pValue = nullptr;
    EXPECT_EQ(key_list_keyset(pList, u32Keys, 0), 0);
    EXPECT_EQ(key_list_add(pList, 9, &s32Values[0]), 0);
    EXPECT_EQ(key_list_add(pList, 0x20009, &s32Values[1]), 0);
    EXPECT_EQ(key_list_add(pList, 1, &s32Values[2]), 0);
    EXPECT_EQ(key_list_add(pList, 0x20009, &s32Values[3]), -1);
    EXPECT_EQ(key_list_count(pList), 3);
    EXPECT_EQ(key_list_keyset(pList, u32Keys, 2), -1);
    EXPECT_EQ(key_list_keyset(pList, u32Keys, 3), 3);
    EXPECT_EQ(std::vector(u32Keys, u32Keys + 3), (std::vector<std::uint32_t>{9, 0x20009, 1}));
    EXPECT_EQ(key_list_get(pList, 0x20009, &pValue), 0);
    EXPECT_EQ(pValue, &s32Values[1]);
    EXPECT_EQ(key_list_get(pList, 2, &pValue), -1);
    EXPECT_EQ(key_list_mask_get(pList, 0xABCD0009, 0xFFFF, &pValue), 0);
    EXPECT_EQ(pValue, &s32Values[0]);
    EXPECT_EQ(key_list_mask_get(pList, 0x80000000, 0x80000000, &pValue), -1);
    EXPECT_EQ(key_list_find_key(pList, 1), 1);
    EXPECT_EQ(key_list_find_key(pList, 2), 0);

    /* Replaced, and the old value not released. */
    EXPECT_EQ(key_list_edit(pList, 9, &s32Values[3]), 0);
    EXPECT_EQ(key_list_edit(pList, 2, &s32Values[3]), -1);
    EXPECT_EQ(key_list_destroy(pList), 0);
    EXPECT_EQ(g_objReleased, (std::vector<int>{77, 1, 2}));
}
} // namespace

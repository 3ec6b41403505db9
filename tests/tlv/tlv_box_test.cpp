#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tlv/key_list.h"
#include "tlv/tlv_box.h"

namespace
{
struct CDestroyBox {
    void operator()(tlv_box *i_pBox) const { tlv_box_destroy(i_pBox); }
};
using CBox = std::unique_ptr<tlv_box, CDestroyBox>;
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

/* What a get leaves where -1 was, and -1 in front if it failed. */
template <typename T, int (*Get)(const tlv_box *, std::uint32_t, T *)>
std::pair<int, T> Got(const CBox &i_pBox, std::uint32_t i_u32Type)
{
    T xValue = static_cast<T>(-1);
    const int s32Result = Get(i_pBox.get(), i_u32Type, &xValue);
    return {s32Result, xValue};
}
constexpr auto GotInt = Got<int, tlv_box_get_int>;
constexpr auto GotChar = Got<char, tlv_box_get_char>;
constexpr auto GotLong = Got<long, tlv_box_get_long>;

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
    EXPECT_EQ(GotChar(pRead, 1), std::pair(0, 'A'));
    EXPECT_EQ((Got<short, tlv_box_get_short>(pRead, 2)), std::pair(0, short(-2)));
    EXPECT_EQ(GotInt(pRead, 0xFFFFFFFE), std::pair(0, 0x01020304));
    EXPECT_EQ(GotLong(pRead, 4), std::pair(0, -1L));
    EXPECT_EQ((Got<long long, tlv_box_get_longlong>(pRead, 5)), std::pair(0, 0x0102030405060708LL));
    EXPECT_EQ((Got<float, tlv_box_get_float>(pRead, 6)), std::pair(0, 1.0F));
    EXPECT_EQ((Got<double, tlv_box_get_double>(pRead, 7)), std::pair(0, -2.0));

    tlv_box *pObject = nullptr;
    ASSERT_EQ(tlv_box_get_object(pRead.get(), 3, &pObject), 0);
    CBox pOwned(pObject);
    pRead.reset();
    EXPECT_EQ(GotInt(pOwned, 0x20001), std::pair(0, 30));
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
    EXPECT_EQ(GotChar(pRead, 7), std::pair(0, '\1'));
    EXPECT_EQ(GotChar(pRead, 8), std::pair(0, '\3'));
    /* The sealed buffer is the input, dropped records included. */
    EXPECT_EQ(tlv_box_get_size(pRead.get()), 27);
    EXPECT_EQ(memcmp(tlv_box_get_buffer(pRead.get()), objTwice.data(), objTwice.size()), 0);
}

TEST(TlvBoxTest, ASealedBoxTakesNoMore)
{
    CBox pSerialised = Building();
    EXPECT_EQ(tlv_box_serialize(pSerialised.get()), 0);
    for (tlv_box *pBox : {pSerialised.get(), Parsed({}).release(), tlv_box_parse("ignored", 0),
                          tlv_box_parse("ignored", -5)}) {
        ASSERT_NE(pBox, nullptr);
        EXPECT_EQ(tlv_box_get_size(pBox), 0);
        EXPECT_NE(tlv_box_get_buffer(pBox), nullptr);
        EXPECT_EQ(tlv_box_put_int(pBox, 1, 1), -1);
        EXPECT_EQ(tlv_box_serialize(pBox), -1);
        EXPECT_EQ(tlv_box_get_node(pBox, 1), nullptr);
        if (pBox != pSerialised.get()) {
            EXPECT_EQ(tlv_box_destroy(pBox), 0);
        }
    }
    /* An empty box nests too; one that is not serialised does not. */
    CBox pOuter = Building();
    CBox pUnfinished = Building();
    EXPECT_EQ(tlv_box_put_object(pOuter.get(), 1, pUnfinished.get()), -1);
    EXPECT_EQ(tlv_box_put_object(pOuter.get(), 1, pSerialised.get()), 0);
    EXPECT_EQ(Serialised(pOuter.get()), (CBytes{1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(TlvBoxTest, ALyingLengthEndsTheParse)
{
    const CBytes objGood = {5, 0, 0, 0, 2, 0, 0, 0, 'h', 'i'};
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
        CBytes objBytes = objGood;
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
    EXPECT_EQ(GotInt(pBox, 1), std::pair(0, 0x81));
    EXPECT_EQ(GotInt(pBox, 2), std::pair(0, 0));
    EXPECT_EQ(GotInt(pBox, 3), std::pair(0, 0x04030201));
    EXPECT_EQ(GotLong(pBox, 4), std::pair(0, 0xFFFFFFL));
    EXPECT_EQ(GotLong(pBox, 5), std::pair(-1, -1L));
}

TEST(TlvBoxTest, TextsAndBytesNeedTheirCapacity)
{
    CBox pBox = Building();
    tlv_box_put_string(pBox.get(), 1, "cbr");
    char szText[8];
    memset(szText, 'x', sizeof(szText));
    int s32Length = 3;
    EXPECT_EQ(tlv_box_get_string(pBox.get(), 1, szText, &s32Length), -1);
    EXPECT_EQ(s32Length, 3);
    EXPECT_EQ(std::string(szText, 8), "xxxxxxxx");
    s32Length = -1;
    EXPECT_EQ(tlv_box_get_bytes(pBox.get(), 1, szText, &s32Length), -1);
    s32Length = 4;
    EXPECT_EQ(tlv_box_get_string(pBox.get(), 1, szText, &s32Length), 0);
    EXPECT_EQ(std::string(szText, 8), std::string("cbr\0xxxx", 8));
    s32Length = 7;
    EXPECT_EQ(tlv_box_get_bytes(pBox.get(), 1, szText, &s32Length), 0);
    EXPECT_EQ(s32Length, 4);
    EXPECT_EQ(std::string(szText, 8), std::string("cbr\0\0\0\0x", 8));

    const unsigned char *pBytes = nullptr;
    EXPECT_EQ(tlv_box_get_bytes_ptr(pBox.get(), 1, &pBytes, &s32Length), 0);
    EXPECT_EQ(s32Length, 4);
    /* The pointer stays good while the box grows beyond its first room. */
    const CBytes objBig(100000, 0x5A);
    for (std::uint32_t u32Type = 2; u32Type < 6; u32Type++) {
        EXPECT_EQ(tlv_box_put_bytes(pBox.get(), u32Type, objBig.data(), 100000), 0);
    }
    ASSERT_EQ(tlv_box_serialize(pBox.get()), 0);
    EXPECT_STREQ(reinterpret_cast<const char *>(pBytes), "cbr");
    EXPECT_EQ(tlv_box_get_size(pBox.get()), 12 + 4 * 100008);
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
    tlv_box_put_int(pBox.get(), 1, 1);
    int s32Value = 8;
    EXPECT_EQ(tlv_box_parse(nullptr, 1), nullptr);
    for (int s32Result :
         {tlv_box_destroy(nullptr), tlv_box_get_size(nullptr), tlv_box_serialize(nullptr),
          tlv_box_put_string(pBox.get(), 2, nullptr), tlv_box_put_bytes(pBox.get(), 2, nullptr, 1),
          tlv_box_put_object(pBox.get(), 2, nullptr), tlv_box_get_int(nullptr, 1, &s32Value),
          tlv_box_get_int(pBox.get(), 1, nullptr), tlv_box_get_object(pBox.get(), 1, nullptr),
          key_list_add(nullptr, 1, nullptr), key_list_destroy(nullptr)}) {
        EXPECT_EQ(s32Result, -1);
    }
    EXPECT_EQ(s32Value, 8);
}

TEST(TlvBoxTest, BoxesOfManyRecordsKeepThemAll)
{
    std::mt19937 objRandom(1);
    for (unsigned u32Records : {15, 16, 17, 33, 200}) {
        /* Narrow ranges of types give duplicates, wide ones give types in no order. */
        for (std::uint32_t u32Range : {50U, 0xFFFFFFFFU}) {
            SCOPED_TRACE(testing::Message() << u32Records << " of " << u32Range);
            std::map<std::uint32_t, CBytes> objExpected;
            CBytes objWire;
            CBox pBox = Building();
            for (unsigned i = 0; i < u32Records; i++) {
                const std::uint32_t u32Type = static_cast<std::uint32_t>(objRandom()) % u32Range;
                const CBytes objValue(objRandom() % 300, static_cast<unsigned char>(i));
                const auto s32Length = static_cast<int>(objValue.size());
                const bool bNew = objExpected.emplace(u32Type, objValue).second;
                ASSERT_EQ(tlv_box_put_bytes(pBox.get(), u32Type, objValue.data(), s32Length),
                          bNew ? 0 : -1);
                if (bNew) {
                    const std::uint32_t u32Header[] = {u32Type, static_cast<unsigned>(s32Length)};
                    const auto *pHeader = reinterpret_cast<const unsigned char *>(u32Header);
                    objWire.insert(objWire.end(), pHeader, pHeader + 8);
                    objWire.insert(objWire.end(), objValue.begin(), objValue.end());
                }
            }
            ASSERT_EQ(Serialised(pBox.get()), objWire);
            CBox pRead = Parsed(objWire);
            for (const auto &[u32Type, objValue] : objExpected) {
                const tlv *pRecord = tlv_box_get_node(pRead.get(), u32Type);
                ASSERT_NE(pRecord, nullptr);
                ASSERT_EQ(pRecord->type, u32Type);
                ASSERT_EQ(CBytes(pRecord->value, pRecord->value + pRecord->length), objValue);
            }
        }
    }
}

std::vector<int> g_objReleased;
void Release(void *i_pValue)
{
    g_objReleased.push_back(*static_cast<int *>(i_pValue));
}

TEST(KeyListTest, KeepsOrderAcrossNodesAndReleasesFrontToBack)
{
    key_list *pList = key_list_create(Release);
    std::uint32_t u32Keys[40] = {};
    int s32Values[40] = {};
    void *pValue = nullptr;
    std::vector<std::uint32_t> objExpected;
    for (int i = 0; i < 40; i++) {
        s32Values[i] = i;
        /* Up and down, so that only a walk tells whether a key below the highest is new. */
        const auto u32Key = static_cast<std::uint32_t>(i % 2 == 0 ? 1000 + i : 1000 - i);
        EXPECT_EQ(key_list_add(pList, u32Key, &s32Values[i]), 0);
        EXPECT_EQ(key_list_add(pList, u32Key, &s32Values[0]), -1);
        objExpected.push_back(u32Key);
    }
    EXPECT_EQ(key_list_count(pList), 40);
    EXPECT_EQ(key_list_keyset(pList, u32Keys, 39), -1);
    EXPECT_EQ(key_list_keyset(pList, u32Keys, 40), 40);
    EXPECT_EQ(std::vector<std::uint32_t>(u32Keys, u32Keys + 40), objExpected);
    EXPECT_EQ(key_list_get(pList, 1000 - 39, &pValue), 0);
    EXPECT_EQ(pValue, &s32Values[39]);
    EXPECT_EQ(key_list_get(pList, 1001, &pValue), -1);
    EXPECT_EQ(key_list_mask_get(pList, 0xABCD0000 + 1038, 0xFFFF, &pValue), 0);
    EXPECT_EQ(pValue, &s32Values[38]);
    EXPECT_EQ(key_list_mask_get(pList, 0x80000000, 0x80000000, &pValue), -1);

    /* Replaced, and the old value not released. */
    int s32Other = 77;
    EXPECT_EQ(key_list_edit(pList, 1000, &s32Other), 0);
    EXPECT_EQ(key_list_edit(pList, 1, &s32Other), -1);
    g_objReleased.clear();
    EXPECT_EQ(key_list_destroy(pList), 0);
    ASSERT_EQ(g_objReleased.size(), 40U);
    EXPECT_EQ(g_objReleased[0], 77);
    for (int i = 1; i < 40; i++) {
        EXPECT_EQ(g_objReleased[static_cast<std::size_t>(i)], i);
    }
}
} // namespace

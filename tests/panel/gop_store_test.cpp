#include <gtest/gtest.h>

#include "panel/gop_store.h"
#include "tests/guard/rtp_maker.h"

namespace
{
TEST(GopStoreTest, PicturesArePassedOnFromAKeyPictureHoweverLongTheGroup)
{
    CGopStore objStore;
    UInt32 u32Sent = 0, u32Passed = 0;
    const struct {
        UInt8 u8Nal;
        UInt32 u32Source, u32Pictures, u32Passed;
        std::size_t u64Kept;
    } stRows[] = {
        {0x41, 1, 3, 0, 0},    {0x65, 1, 1, 1, 1},    {0x41, 1, 7000, 7001, 0},
        {0x65, 1, 1, 7002, 1}, {0x41, 2, 3, 7002, 0}, /* another stream, joined in the middle */
        {0x65, 2, 1, 7003, 1},
    };
    for (const auto &stRow : stRows) {
        Packet objPayload(1000, 0x88);
        objPayload[0] = stRow.u8Nal;
        for (UInt32 i = 0; i < stRow.u32Pictures; i++, u32Sent++) {
            objStore.Add(MakeRtp(static_cast<UInt16>(u32Sent), u32Sent * 3000, objPayload, true,
                                 stRow.u32Source),
                         [&u32Passed](const CPicture &) { u32Passed++; });
        }
        EXPECT_EQ(u32Passed, stRow.u32Passed) << u32Sent;
        EXPECT_EQ(objStore.Group().size(), stRow.u64Kept) << u32Sent;
    }
}
} // namespace

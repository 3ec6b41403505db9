/*
 * The stream's packets since the last key picture.
 */
#include "panel/gop_store.h"

#include <cstdio>

#include <glib.h>

namespace
{
/* Two seconds of the highest bit rate are 2.5 MB. */
constexpr std::size_t kMostGroup = 6 * 1024 * 1024;
constexpr std::size_t kMostPicture = 2 * 1024 * 1024;
/* A stream that goes on does not leap further, in 90 kHz. */
constexpr SInt64 kLeap = 10 * 90000;

std::string Text(Bytes i_objBytes)
{
    return {reinterpret_cast<const char *>(i_objBytes.data()), i_objBytes.size()};
}

std::string Base64(const std::string &i_strBytes)
{
    char *pText =
        g_base64_encode(reinterpret_cast<const guchar *>(i_strBytes.data()), i_strBytes.size());
    const std::string strText(pText);
    g_free(pText);
    return strText;
}
} // namespace

void CGopStore::Add(Bytes i_objPacket, const std::function<void(const CPicture &)> &i_pTake)
{
    const std::optional<RTP_PACKET_S> stPacket = ParseRtp(i_objPacket);
    if (!stPacket || stPacket->objPayload.empty()) {
        return;
    }
    if (m_bStarted && stPacket->u32Source != m_u32Source) {
        BeginStream();
    } else if (m_pPicture && stPacket->u32Timestamp != m_u32Timestamp) {
        /* Its last packet was lost. */
        EndPicture(i_pTake);
    }
    m_u32Source = stPacket->u32Source;
    m_u8PayloadType = stPacket->u8PayloadType;
    const UInt64 u64Time = Unwrapped(stPacket->u32Timestamp);
    m_bStarted = true;
    LookInto(*stPacket);
    if (!m_pPicture) {
        m_pPicture = std::make_shared<PICTURE_S>();
        m_pPicture->u64Time = u64Time;
        m_u64PictureBytes = 0;
    }
    m_pPicture->bKey = m_pPicture->bKey || BeginsKeyPicture(stPacket->objPayload);
    m_u64PictureBytes += i_objPacket.size();
    if (m_u64PictureBytes <= kMostPicture) {
        m_pPicture->objPackets.push_back(Text(i_objPacket));
    }
    if (stPacket->bMarker) {
        EndPicture(i_pTake);
    }
}

UInt64 CGopStore::Unwrapped(UInt32 i_u32Timestamp)
{
    const SInt64 s64Step = static_cast<SInt32>(i_u32Timestamp - m_u32Timestamp);
    m_u32Timestamp = i_u32Timestamp;
    if (!m_bStarted) {
        m_u64Time = kLeap;
    } else if (s64Step < -kLeap || s64Step > kLeap ||
               static_cast<SInt64>(m_u64Time) + s64Step < 0) {
        BeginStream();
        m_u64Time = kLeap;
    } else {
        m_u64Time += static_cast<UInt64>(s64Step);
    }
    return m_u64Time;
}

void CGopStore::BeginStream()
{
    m_u64Epoch++;
    m_bStarted = false;
    m_bKeyCame = false;
    m_objGroup.clear();
    m_u64GroupBytes = 0;
    m_pPicture.reset();
}

void CGopStore::LookInto(const RTP_PACKET_S &i_stPacket)
{
    ForEachNal(i_stPacket.objPayload, [this](UInt8 i_u8Type, Bytes i_objUnit) {
        if (i_u8Type == NAL_PPS && !i_objUnit.empty()) {
            m_strPps = Text(i_objUnit);
        }
        if (i_u8Type != NAL_SPS || i_objUnit.empty() || Text(i_objUnit) == m_strSps) {
            return;
        }
        if (!m_strSps.empty()) {
            /* Another size or profile. The picture under way is the first of it. */
            std::shared_ptr<PICTURE_S> pPicture = std::move(m_pPicture);
            BeginStream();
            m_bStarted = true;
            m_pPicture = std::move(pPicture);
        }
        m_strSps = Text(i_objUnit);
    });
}

void CGopStore::EndPicture(const std::function<void(const CPicture &)> &i_pTake)
{
    const std::shared_ptr<PICTURE_S> pPicture = std::move(m_pPicture);
    m_pPicture.reset();
    if (pPicture->bKey) {
        m_bKeyCame = true;
        m_objGroup.clear();
        m_u64GroupBytes = 0;
    } else if (!m_bKeyCame) {
        return;
    }
    i_pTake(pPicture);
    m_u64GroupBytes += m_u64PictureBytes;
    if (m_u64GroupBytes > kMostGroup) {
        m_objGroup.clear(); /* who watches goes on, who is new waits */
        return;
    }
    m_objGroup.push_back(pPicture);
}

std::string CGopStore::Codec() const
{
    if (m_strSps.size() < 4) {
        return {};
    }
    char szCodec[16];
    snprintf(szCodec, sizeof(szCodec), "avc1.%02x%02x%02x", static_cast<UInt8>(m_strSps[1]),
             static_cast<UInt8>(m_strSps[2]), static_cast<UInt8>(m_strSps[3]));
    return szCodec;
}

std::string CGopStore::ParameterSets() const
{
    return m_strSps.empty() || m_strPps.empty() ? std::string()
                                                : Base64(m_strSps) + "," + Base64(m_strPps);
}

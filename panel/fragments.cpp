/*
 * The fragmented MP4 stream, cut and kept.
 */
#include "panel/fragments.h"

#include <algorithm>

namespace
{
constexpr std::size_t kMostBox = 4 * 1024 * 1024;
/* A group of two seconds at the highest bit rate is 2.5 MB. */
constexpr std::size_t kMostKept = 6 * 1024 * 1024;
/* Pictures; who is further behind than that, and than the last key picture, is skipped forward. */
constexpr UInt64 kMostBehind = 15;
/* What one viewer is handed at a time. */
constexpr std::size_t kMostRead = 256 * 1024;
/* Of tfhd and trun (ISO/IEC 14496-12, 8.8.7 and 8.8.8). */
constexpr UInt32 kBaseDataOffset = 0x1, kDescription = 0x2, kDuration = 0x8, kSize = 0x10,
                 kDefaultFlags = 0x20;
constexpr UInt32 kDataOffset = 0x1, kFirstFlags = 0x4, kSampleDuration = 0x100, kSampleSize = 0x200,
                 kSampleFlags = 0x400;
constexpr UInt32 kNoSyncSample = 0x10000;

/* 0 beyond the end. */
UInt32 Read32(const std::string &i_strBytes, std::size_t i_u64At)
{
    UInt32 u32Value = 0;
    for (std::size_t i = i_u64At; i < i_u64At + 4 && i_u64At + 4 <= i_strBytes.size(); i++) {
        u32Value = u32Value << 8 | static_cast<UInt8>(i_strBytes[i]);
    }
    return u32Value;
}

/* The content of the first box of that type; empty if there is none. */
std::string FindBox(const std::string &i_strBoxes, const char *i_pType)
{
    std::size_t u64Pos = 0;
    while (u64Pos + 8 <= i_strBoxes.size()) {
        const UInt32 u32Size = Read32(i_strBoxes, u64Pos);
        if (u32Size < 8 || u32Size > i_strBoxes.size() - u64Pos) {
            return {};
        }
        if (i_strBoxes.compare(u64Pos + 4, 4, i_pType) == 0) {
            return i_strBoxes.substr(u64Pos + 8, u32Size - 8);
        }
        u64Pos += u32Size;
    }
    return {};
}

UInt32 DefaultFlags(const std::string &i_strTfhd)
{
    const UInt32 u32Has = Read32(i_strTfhd, 0);
    std::size_t u64At = 8;
    u64At += (u32Has & kBaseDataOffset) != 0 ? 8 : 0;
    for (const UInt32 u32Field : {kDescription, kDuration, kSize}) {
        u64At += (u32Has & u32Field) != 0 ? 4 : 0;
    }
    return (u32Has & kDefaultFlags) != 0 ? Read32(i_strTfhd, u64At) : 0;
}
} // namespace

Bool BeginsWithKeySample(const std::string &i_strMoof)
{
    const std::string strTraf =
        FindBox(i_strMoof.substr(std::min<std::size_t>(8, i_strMoof.size())), "traf");
    const std::string strTrun = FindBox(strTraf, "trun");
    const UInt32 u32Has = Read32(strTrun, 0);
    std::size_t u64At = 8 + ((u32Has & kDataOffset) != 0 ? 4 : 0);
    UInt32 u32Flags = DefaultFlags(FindBox(strTraf, "tfhd"));
    if ((u32Has & kFirstFlags) != 0) {
        u32Flags = Read32(strTrun, u64At);
    } else if ((u32Has & kSampleFlags) != 0) {
        u64At += (u32Has & kSampleDuration) != 0 ? 4 : 0;
        u64At += (u32Has & kSampleSize) != 0 ? 4 : 0;
        u32Flags = Read32(strTrun, u64At);
    }
    return !strTrun.empty() && (u32Flags & kNoSyncSample) == 0;
}

Bool CFragmentCutter::Add(const char *i_pData, std::size_t i_u64Size)
{
    m_strBytes.append(i_pData, i_u64Size);
    std::size_t u64Pos = 0;
    bool bRight = true;
    while (bRight && u64Pos + 8 <= m_strBytes.size()) {
        const UInt32 u32Size = Read32(m_strBytes, u64Pos);
        if (u32Size < 8 || u32Size > kMostBox) {
            return false;
        }
        if (u32Size > m_strBytes.size() - u64Pos) {
            break;
        }
        bRight = TakeBox(m_strBytes.substr(u64Pos, u32Size), m_strBytes.substr(u64Pos + 4, 4));
        u64Pos += u32Size;
    }
    m_strBytes.erase(0, u64Pos);
    return bRight;
}

Bool CFragmentCutter::TakeBox(const std::string &i_strBox, const std::string &i_strType)
{
    if (i_strType == "ftyp") {
        m_strHead = i_strBox;
    } else if (i_strType == "moov") {
        m_strBeginning = m_strHead + i_strBox;
    } else if (i_strType == "moof") {
        m_strFragment = i_strBox;
    } else if (i_strType == "mdat") {
        if (m_strFragment.empty()) {
            return false;
        }
        m_objReady.push_back({m_strFragment + i_strBox, BeginsWithKeySample(m_strFragment)});
        m_strFragment.clear();
    }
    return true;
}

std::optional<FRAGMENT_S> CFragmentCutter::Next()
{
    if (m_objReady.empty()) {
        return std::nullopt;
    }
    FRAGMENT_S stFragment = std::move(m_objReady.front());
    m_objReady.pop_front();
    return stFragment;
}

void CFragments::Begin(std::string i_strBeginning, std::string i_strCodec)
{
    const std::lock_guard objLock(m_objMutex);
    m_u64Epoch++;
    m_bRunning = true;
    m_strBeginning = std::move(i_strBeginning);
    m_strCodec = std::move(i_strCodec);
    m_objFragments.clear();
    m_u64Bytes = 0;
    m_u64First = m_u64Key = 0;
    m_objChanged.notify_all();
}

void CFragments::Add(FRAGMENT_S i_stFragment)
{
    const std::lock_guard objLock(m_objMutex);
    const UInt64 u64Number = m_u64First + m_objFragments.size();
    if (!m_bRunning || (m_objFragments.empty() && !i_stFragment.bKey)) {
        return;
    }
    if (i_stFragment.bKey) {
        m_u64Key = u64Number;
    }
    m_u64Bytes += i_stFragment.strBytes.size();
    m_objFragments.push_back(std::make_shared<const FRAGMENT_S>(std::move(i_stFragment)));
    Trim();
    m_objChanged.notify_all();
}

void CFragments::Trim()
{
    const UInt64 u64End = m_u64First + m_objFragments.size();
    const UInt64 u64Keep = std::min(m_u64Key, u64End - std::min(u64End, kMostBehind));
    while (!m_objFragments.empty() && (m_u64First < u64Keep || m_u64Bytes > kMostKept)) {
        m_u64Bytes -= m_objFragments.front()->strBytes.size();
        m_objFragments.pop_front();
        m_u64First++;
    }
}

void CFragments::End()
{
    const std::lock_guard objLock(m_objMutex);
    m_bRunning = false;
    m_objFragments.clear();
    m_objChanged.notify_all();
}

void CFragments::Close()
{
    const std::lock_guard objLock(m_objMutex);
    m_bClosed = true;
    m_objChanged.notify_all();
}

Bool CFragments::Join(std::chrono::milliseconds i_objMost, PLACE_S &o_stPlace,
                      std::string &o_strBytes, std::string &o_strCodec)
{
    std::unique_lock objLock(m_objMutex);
    const auto pCanJoin = [this] {
        return m_bRunning && !m_objFragments.empty() && m_u64Key >= m_u64First;
    };
    m_objChanged.wait_for(objLock, i_objMost, [&] { return m_bClosed || pCanJoin(); });
    if (m_bClosed || !pCanJoin()) {
        return false;
    }
    o_stPlace = {m_u64Epoch, m_u64Key};
    o_strBytes = m_strBeginning;
    o_strCodec = m_strCodec;
    return true;
}

CFragments::WaitResult CFragments::Read(PLACE_S &io_stPlace, std::chrono::milliseconds i_objMost,
                                        std::string &o_strBytes)
{
    std::unique_lock objLock(m_objMutex);
    const auto pIsOver = [&] {
        return m_bClosed || !m_bRunning || m_u64Epoch != io_stPlace.u64Epoch;
    };
    m_objChanged.wait_for(objLock, i_objMost, [&] {
        return pIsOver() || io_stPlace.u64Next < m_u64First + m_objFragments.size();
    });
    if (pIsOver()) {
        return WaitResult::Over;
    }
    const UInt64 u64End = m_u64First + m_objFragments.size();
    if (io_stPlace.u64Next < m_u64First ||
        (io_stPlace.u64Next < m_u64Key && u64End - io_stPlace.u64Next > kMostBehind)) {
        io_stPlace.u64Next = m_u64Key;
    }
    o_strBytes.clear();
    if (io_stPlace.u64Next < m_u64First) {
        return WaitResult::Nothing; /* the group was too large to be kept */
    }
    std::size_t u64Index = io_stPlace.u64Next - m_u64First;
    while (u64Index < m_objFragments.size() && o_strBytes.size() < kMostRead) {
        o_strBytes += m_objFragments[u64Index]->strBytes;
        u64Index++;
        io_stPlace.u64Next++;
    }
    return o_strBytes.empty() ? WaitResult::Nothing : WaitResult::Data;
}

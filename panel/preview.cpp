/*
 * The newest preview picture, and the one that stands in for it when there is none.
 */
#include "panel/preview.h"

#include <fcntl.h>
#include <unistd.h>

#include "framework/unique_fd.h"

namespace
{
constexpr off_t kMostBytes = 4 * 1024 * 1024;
} // namespace

Bool IsWholeJpeg(const std::string &i_strBytes)
{
    return i_strBytes.size() > 4 && i_strBytes.compare(0, 2, "\xff\xd8") == 0 &&
           i_strBytes.compare(i_strBytes.size() - 2, 2, "\xff\xd9") == 0;
}

std::shared_ptr<const PREVIEW_S> CPreview::Get()
{
    const std::lock_guard objLock(m_objMutex);
    /* Whoever may write to that folder could have put something else in its place, a pipe say. */
    const UniqueFd objFile(open(m_strFile.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    struct stat stStat = {};
    if (!objFile || fstat(objFile.Get(), &stStat) != 0 || !S_ISREG(stStat.st_mode) ||
        stStat.st_size <= 0 || stStat.st_size > kMostBytes) {
        return m_pPicture;
    }
    if (stStat.st_ino == m_u64Inode && stStat.st_mtim.tv_sec == m_stTime.tv_sec &&
        stStat.st_mtim.tv_nsec == m_stTime.tv_nsec) {
        return m_pPicture;
    }
    auto pPicture = std::make_shared<PREVIEW_S>();
    pPicture->strJpeg.resize(static_cast<std::size_t>(stStat.st_size));
    const ssize_t s64Read =
        pread(objFile.Get(), pPicture->strJpeg.data(), pPicture->strJpeg.size(), 0);
    if (s64Read != stStat.st_size || !IsWholeJpeg(pPicture->strJpeg)) {
        return m_pPicture;
    }
    pPicture->f64Time = static_cast<double>(stStat.st_mtim.tv_sec) + 1e-9 * stStat.st_mtim.tv_nsec;
    pPicture->u64Version = m_pPicture ? m_pPicture->u64Version + 1 : 1;
    m_stTime = stStat.st_mtim;
    m_u64Inode = stStat.st_ino;
    m_pPicture = std::move(pPicture);
    return m_pPicture;
}

/*
 * Reading and replacing.
 */
#include "guard/files.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "framework/unique_fd.h"

std::optional<std::string> ReadFile(const std::string &i_strPath, std::size_t i_u64Limit)
{
    /* Without waiting for the other end of somebody's pipe. */
    const UniqueFd objFd(open(i_strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat stStat = {};
    if (!objFd || fstat(objFd.Get(), &stStat) != 0) {
        return std::nullopt;
    }
    if (!S_ISREG(stStat.st_mode)) {
        errno = EINVAL;
        return std::nullopt;
    }
    std::string strText;
    char szPart[16384];
    for (;;) {
        const ssize_t s64Length = read(objFd.Get(), szPart, sizeof(szPart));
        if (s64Length == 0) {
            return strText;
        }
        if (s64Length < 0 && errno == EINTR) {
            continue;
        }
        if (s64Length < 0) {
            return std::nullopt;
        }
        strText.append(szPart, static_cast<std::size_t>(s64Length));
        if (strText.size() > i_u64Limit) {
            errno = EFBIG;
            return std::nullopt;
        }
    }
}

int ReplaceFile(const std::string &i_strPath, const std::string &i_strText)
{
    const std::string strNew = i_strPath + ".new";
    /* Whatever has the name, a pipe on which one would wait or a link to elsewhere, is not ours. */
    if (unlink(strNew.c_str()) != 0 && errno != ENOENT) {
        return errno;
    }
    UniqueFd objFd(
        open(strNew.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (!objFd) {
        return errno;
    }
    (void)fchmod(objFd.Get(), 0644); /* for every reader, whatever the umask */
    const ssize_t s64Written = write(objFd.Get(), i_strText.data(), i_strText.size());
    int s32Error = s64Written < 0 ? errno : 0;
    if (s32Error == 0 && static_cast<std::size_t>(s64Written) != i_strText.size()) {
        s32Error = ENOSPC;
    }
    if (objFd.Close() != 0 && s32Error == 0) {
        s32Error = errno;
    }
    if (s32Error == 0 && rename(strNew.c_str(), i_strPath.c_str()) != 0) {
        s32Error = errno;
    }
    if (s32Error != 0) {
        unlink(strNew.c_str());
    }
    return s32Error;
}

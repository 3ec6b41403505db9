/*
 * Reading the end.
 */
#include "tools/file_end.h"

#include <array>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "framework/unique_fd.h"

std::optional<std::string> ReadEnd(const std::string &i_strPath, std::size_t i_u64Limit)
{
    constexpr std::size_t kMostParts = 1024; /* a file may grow faster than it is read */
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
    if (stStat.st_size > static_cast<off_t>(i_u64Limit)) {
        (void)lseek(objFd.Get(), stStat.st_size - static_cast<off_t>(i_u64Limit), SEEK_SET);
    }
    std::string strText;
    std::array<char, 16384> szPart;
    for (std::size_t i = 0; i < kMostParts; i++) {
        const ssize_t s64Length = read(objFd.Get(), szPart.data(), szPart.size());
        if (s64Length < 0 && errno != EINTR) {
            return std::nullopt;
        }
        if (s64Length == 0) {
            break;
        }
        strText.append(szPart.data(), s64Length > 0 ? static_cast<std::size_t>(s64Length) : 0);
        if (strText.size() > i_u64Limit) {
            strText.erase(0, strText.size() - i_u64Limit);
        }
    }
    return strText;
}

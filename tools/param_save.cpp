/*
 * Replacing a parameter file by an edited one.
 */
#include "tools/param_save.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/box/param.h"
#include "common/box/param_table.h"

namespace
{
constexpr off_t kMostBytes = 16 * 1024 * 1024;
constexpr unsigned kLockPollUs = 20000;
constexpr int kLockPolls = 250;

/* Texts of the table's rows, as the daemon reads them. */
using CRowTexts = std::array<std::optional<std::string>, PARAM_COUNT>;

CRowTexts RowTexts(const RQ_XMLParser &i_objParser)
{
    const PARAM_ELEMENTS pElements = FindParams(i_objParser);
    CRowTexts strTexts;
    for (std::size_t i = 0; i < PARAM_COUNT; i++) {
        if (pElements[i] != nullptr && pElements[i]->GetText() != nullptr) {
            strTexts[i] = pElements[i]->GetText();
        }
    }
    return strTexts;
}

/* The file under its lock. */
class CLockedFile : public RQ_XMLParser
{
public:
    explicit CLockedFile(const std::string &i_strPath) : RQ_XMLParser(i_strPath.c_str()) {}

    /* Takes the lock of the file that has the name now. False with errno. */
    bool Lock()
    {
        int s32Polls = 0;
        const auto Wait = [&s32Polls] {
            usleep(kLockPollUs);
            return ++s32Polls < kLockPolls;
        };
        while (s32Polls < kLockPolls) {
            if (Parse(Wait) != 0 && fd) {
                break;
            }
            struct stat stNamed;
            if (!fd || fstat(fd.Get(), &m_stStat) != 0) {
                /* The parser tells no reason. */
                fd.Reset(open(path, O_RDWR | O_CLOEXEC));
                return false;
            }
            if (stat(path, &stNamed) == 0 && stNamed.st_ino == m_stStat.st_ino &&
                stNamed.st_dev == m_stStat.st_dev) {
                return true;
            }
            /* Another save renamed a new file to the name while this one waited for the old. */
            fd.Reset();
            s32Polls++;
        }
        errno = EWOULDBLOCK;
        return false;
    }

    /* The whole file; none with errno. */
    std::optional<std::string> Read() const
    {
        if (!S_ISREG(m_stStat.st_mode) || m_stStat.st_size > kMostBytes) {
            errno = S_ISREG(m_stStat.st_mode) ? EFBIG : EINVAL;
            return std::nullopt;
        }
        std::string strText(static_cast<std::size_t>(m_stStat.st_size), '\0');
        const ssize_t s64Read = pread(fd.Get(), strText.data(), strText.size(), 0);
        if (s64Read < 0) {
            return std::nullopt;
        }
        strText.resize(static_cast<std::size_t>(s64Read));
        return strText;
    }

    const struct stat &Stat() const { return m_stStat; }

private:
    struct stat m_stStat = {};
};

/* Removes the file unless it got its new name. */
struct CUnlink {
    const std::string &strPath;
    bool bRenamed = false;
    ~CUnlink()
    {
        if (!bRenamed) {
            const int s32Errno = errno;
            unlink(strPath.c_str());
            errno = s32Errno;
        }
    }
};

/* Who may not give files away, as a service without capabilities, keeps at least the group, by
 * which the daemon may write. False with errno. */
bool TakeOwner(int i_s32Fd, const struct stat &i_stOld)
{
    struct stat stNew;
    if (fstat(i_s32Fd, &stNew) != 0) {
        return false;
    }
    const bool bGroup = stNew.st_gid == i_stOld.st_gid;
    return (bGroup && stNew.st_uid == i_stOld.st_uid) ||
           fchown(i_s32Fd, i_stOld.st_uid, i_stOld.st_gid) == 0 ||
           (errno == EPERM &&
            (bGroup || fchown(i_s32Fd, static_cast<uid_t>(-1), i_stOld.st_gid) == 0));
}

/* A new file with that text, on the disk, with the owner and mode of the old one. False with
 * errno. */
bool WriteSynced(const std::string &i_strPath, const std::string &i_strText,
                 const struct stat &i_stOld)
{
    /* Left over from a save that was cut off; the lock says that none is under way. */
    unlink(i_strPath.c_str());
    UniqueFd objFd(open(i_strPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        S_IRUSR | S_IWUSR));
    if (!objFd || !TakeOwner(objFd.Get(), i_stOld) ||
        fchmod(objFd.Get(), i_stOld.st_mode & 07777) != 0) {
        return false;
    }
    for (std::size_t u64Done = 0; u64Done < i_strText.size();) {
        const ssize_t s64Written =
            write(objFd.Get(), i_strText.data() + u64Done, i_strText.size() - u64Done);
        if (s64Written < 0 && errno != EINTR) {
            return false;
        }
        u64Done += s64Written > 0 ? static_cast<std::size_t>(s64Written) : 0;
    }
    return fsync(objFd.Get()) == 0 && objFd.Close() == 0;
}

bool SyncFolder(const std::string &i_strFolder)
{
    const UniqueFd objFd(open(i_strFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return objFd && fsync(objFd.Get()) == 0;
}

/* Whether the daemon reads the new file as the old one, but for the changes. */
bool IsReadAsMeant(const std::string &i_strNew, CRowTexts i_strExpected,
                   const std::vector<PARAM_CHANGE_S> &i_objChanges)
{
    for (const PARAM_CHANGE_S &stChange : i_objChanges) {
        for (std::size_t i = 0; i < PARAM_COUNT; i++) {
            if (stChange.strName == g_aParams[i].name) {
                i_strExpected[i] = stChange.strValue;
            }
        }
    }
    RQ_XMLParser objParser(i_strNew.c_str());
    return objParser.Load() == 0 && objParser.LoadError()[0] == '\0' &&
           RowTexts(objParser) == i_strExpected;
}

/* The file itself where the path is a link to it, since a rename would replace the link. */
std::string Resolved(const std::string &i_strPath)
{
    char *pResolved = realpath(i_strPath.c_str(), nullptr);
    const std::string strResolved = pResolved != nullptr ? pResolved : i_strPath;
    std::free(pResolved);
    return strResolved;
}
} // namespace

SaveResult SaveParams(const std::string &i_strPath, const std::vector<PARAM_CHANGE_S> &i_objChanges,
                      std::string &o_strError)
{
    const std::string strPath = Resolved(i_strPath);
    const std::size_t u64Slash = strPath.rfind('/');
    const std::string strFolder = u64Slash == std::string::npos ? "." : strPath.substr(0, u64Slash);
    const std::string strNew = strFolder + "/." + strPath.substr(u64Slash + 1) + ".new";
    const auto Failed = [&](const std::string &i_strWhat) {
        o_strError = i_strPath + i_strWhat + ": " + strerror(errno);
        return SaveResult::SystemError;
    };
    if (strNew.size() > 255) {
        errno = ENAMETOOLONG;
        return Failed("");
    }
    struct stat stStat;
    if (lstat(strPath.c_str(), &stStat) == 0 && S_ISLNK(stStat.st_mode)) {
        errno = ENOENT;
        return Failed(" is a link to a file that is not there");
    }
    CLockedFile objFile(strPath);
    if (!objFile.Lock()) {
        return Failed(errno == EWOULDBLOCK ? " is locked by another program" : "");
    }
    const std::optional<std::string> objText = objFile.Read();
    if (!objText) {
        return Failed(" cannot be read");
    }
    const bool bBlank = objText->find_first_not_of(" \t\r\n") == std::string::npos;
    if (!bBlank && objFile.LoadError()[0] != '\0') {
        o_strError = i_strPath +
                     " is damaged, so the daemon uses the defaults, and it stays as it "
                     "is: " +
                     objFile.LoadError();
        return SaveResult::Damaged;
    }
    std::string strReason;
    const std::optional<std::string> objNew = EditParams(*objText, i_objChanges, strReason);
    if (!objNew) {
        o_strError = i_strPath + " stays as it is: " + strReason;
        return SaveResult::Damaged;
    }
    CUnlink stUnlink = {strNew};
    if (!WriteSynced(strNew, *objNew, objFile.Stat())) {
        return Failed(" stays as it is, for " + strNew + " cannot be written");
    }
    if (!IsReadAsMeant(strNew, RowTexts(objFile), i_objChanges)) {
        o_strError = i_strPath + " stays as it is: it is written in a way that would be read "
                                 "differently afterwards";
        return SaveResult::Damaged;
    }
    if (rename(strNew.c_str(), strPath.c_str()) != 0) {
        return Failed(" cannot be replaced");
    }
    stUnlink.bRenamed = true;
    return SyncFolder(strFolder) ? SaveResult::Saved
                                 : Failed(" is the new one, but its folder cannot be synced");
}

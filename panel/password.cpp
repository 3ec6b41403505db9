/*
 * Setting the password: a command of its own, run by whoever keeps the box.
 */
#include <cerrno>
#include <cstring>
#include <iostream>

#include <crypt.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "framework/unique_fd.h"
#include "panel/doors.h"

namespace
{
constexpr std::size_t kLeast = 8;
constexpr const char *kUser = "mv3300-panel";

/* A line of the terminal that is not shown while it is typed. */
bool AskHidden(const char *i_pPrompt, std::string &o_strLine)
{
    std::cerr << i_pPrompt << std::flush;
    termios stBefore = {};
    tcgetattr(STDIN_FILENO, &stBefore);
    termios stHidden = stBefore;
    stHidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &stHidden);
    const bool bRead = static_cast<bool>(std::getline(std::cin, o_strLine));
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &stBefore);
    std::cerr << '\n';
    return bRead;
}

/* Empty if it is one; else what is wrong. */
std::string ReadPassword(std::string &o_strPassword)
{
    if (isatty(STDIN_FILENO) == 0) {
        if (!std::getline(std::cin, o_strPassword)) {
            return "the standard input is empty";
        }
    } else {
        std::string strAgain;
        if (!AskHidden("New password: ", o_strPassword) || !AskHidden("Once more: ", strAgain)) {
            return "nothing was entered";
        }
        if (o_strPassword != strAgain) {
            return "the two are not the same";
        }
    }
    /* A longer one would be cut by crypt(3). */
    return o_strPassword.size() < kLeast || o_strPassword.size() > CRYPT_MAX_PASSPHRASE_SIZE
               ? "a password has at least 8 characters and at most 512"
               : "";
}

/* 0 or errno. The file is replaced as a whole, and never readable by others. */
int Store(const std::string &i_strFile, const std::string &i_strHash)
{
    std::string strTemporary = i_strFile + ".XXXXXX";
    const UniqueFd objFile(mkstemp(strTemporary.data()));
    if (!objFile) {
        return errno;
    }
    const passwd *pUser = geteuid() == 0 ? getpwnam(kUser) : nullptr;
    const std::string strLine = i_strHash + "\n";
    if (fchmod(objFile.Get(), 0600) != 0 ||
        (pUser != nullptr && fchown(objFile.Get(), pUser->pw_uid, pUser->pw_gid) != 0) ||
        write(objFile.Get(), strLine.data(), strLine.size()) !=
            static_cast<ssize_t>(strLine.size()) ||
        fsync(objFile.Get()) != 0 || rename(strTemporary.c_str(), i_strFile.c_str()) != 0) {
        const int s32Error = errno;
        unlink(strTemporary.c_str());
        return s32Error;
    }
    return 0;
}
} // namespace

int SetPassword(const std::string &i_strFile)
{
    std::string strPassword;
    const std::string strWrong = ReadPassword(strPassword);
    if (!strWrong.empty()) {
        std::cerr << "mv3300-panel: " << strWrong << '\n';
        return 1;
    }
    char szSetting[CRYPT_GENSALT_OUTPUT_SIZE];
    crypt_data stData = {};
    /* 0: the library's own cost; no bytes: the system's random ones. */
    const char *pHash =
        crypt_gensalt_rn("$y$", 0, nullptr, 0, szSetting, sizeof(szSetting)) == nullptr
            ? nullptr
            : crypt_r(strPassword.c_str(), szSetting, &stData);
    if (pHash == nullptr || pHash[0] == '*') {
        std::cerr << "mv3300-panel: the password cannot be hashed: " << std::strerror(errno)
                  << '\n';
        return 1;
    }
    const int s32Error = Store(i_strFile, pHash);
    if (s32Error != 0) {
        std::cerr << "mv3300-panel: " << i_strFile << ": " << std::strerror(s32Error) << '\n';
        return 1;
    }
    return 0;
}

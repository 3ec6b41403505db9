/*
 * The log configuration.
 *
 * log4cpp takes a configuration whole or throws, and opens no file that it could not. So one that
 * it refuses is taken apart: each appender is tried by itself, and what passes is put together
 * again.
 */
#include "common/bus/log_config.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>
#include <log4cpp/PatternLayout.hh>
#include <log4cpp/PropertyConfigurator.hh>
#include <log4cpp/RollingFileAppender.hh>
#include <log4cpp/SyslogAppender.hh>

#include "framework/unique_fd.h"

/* syslog(3) gives these names to its levels. */
#undef LOG_NOTICE
#undef LOG_INFO
#undef LOG_DEBUG
#include "common/bus/log.h"

using log4cpp::Appender;
using log4cpp::Category;

namespace
{
constexpr char kCategory[] = "CATEGORY";
constexpr char kRootKey[] = "rootCategory";
constexpr std::string_view kAppenderPrefix = "appender.";
constexpr std::string_view kCategoryPrefix = "category.";
constexpr std::size_t kFallbackSize = 1000000; /* bytes, as in the sample configuration */
constexpr unsigned kFallbackBackups = 2;
constexpr std::string_view kFileKey = ".fileName";
constexpr off_t kMostBytes = 1024 * 1024; /* of a configuration that somebody asks about */

using Lines = std::vector<std::pair<std::string, std::string>>; /* key and value */
using Names = std::vector<std::string>;

bool Has(const Names &i_strNames, const std::string &i_strName)
{
    return std::find(i_strNames.begin(), i_strNames.end(), i_strName) != i_strNames.end();
}

std::string Trimmed(std::string_view i_strText)
{
    const std::size_t u64Begin = i_strText.find_first_not_of(" \t\r");
    if (u64Begin == i_strText.npos) {
        return "";
    }
    return std::string(
        i_strText.substr(u64Begin, i_strText.find_last_not_of(" \t\r") + 1 - u64Begin));
}

bool IsNullDevice(int i_s32Fd)
{
    struct stat stStat;
    return fstat(i_s32Fd, &stStat) == 0 && S_ISCHR(stStat.st_mode) &&
           stStat.st_rdev == makedev(1, 3);
}

Appender *WithLayout(Appender *i_pAppender, const char *i_pPattern)
{
    auto *pLayout = new log4cpp::PatternLayout;
    pLayout->setConversionPattern(i_pPattern);
    i_pAppender->setLayout(pLayout);
    return i_pAppender;
}

/* Owned by the category that takes it. i_pFile: null for none. */
Appender *MakeFallback(const char *i_pFile)
{
    constexpr char kPattern[] = "%d %p %m%n";
    if (!IsNullDevice(STDERR_FILENO)) {
        return WithLayout(new log4cpp::OstreamAppender("stderr", &std::cerr), kPattern);
    }
    if (i_pFile != nullptr) {
        auto *pFile =
            new log4cpp::RollingFileAppender("fallback", i_pFile, kFallbackSize, kFallbackBackups);
        if (pFile->reopen()) {
            return WithLayout(pFile, kPattern);
        }
        delete pFile;
    }
    return WithLayout(new log4cpp::SyslogAppender("syslog", "mv3300d", LOG_DAEMON), "%m");
}

/* Appenders that a configuration made belong to no category, and stay until they are deleted. */
void Forget(const Names &i_strAppenders)
{
    const std::unique_ptr<std::vector<Category *>> pCategories(Category::getCurrentCategories());
    for (Category *pCategory : *pCategories) {
        pCategory->removeAllAppenders();
    }
    for (const std::string &strName : i_strAppenders) {
        delete Appender::getAppender(strName);
    }
}

/* The library's older prefixes before a key mean nothing. */
std::string WithoutPrefix(const std::string &i_strKey)
{
    for (const std::string_view strPrefix : {"log4cpp.", "log4j."}) {
        if (i_strKey.starts_with(strPrefix)) {
            return i_strKey.substr(strPrefix.size());
        }
    }
    return i_strKey;
}

Lines ReadLines(const char *i_pPath)
{
    Lines strLines;
    std::ifstream objFile(i_pPath);
    for (std::string strLine; std::getline(objFile, strLine);) {
        strLine.resize(std::min(strLine.size(), strLine.find('#')));
        const std::size_t u64Equals = strLine.find('=');
        if (u64Equals != strLine.npos) {
            strLines.emplace_back(WithoutPrefix(Trimmed(strLine.substr(0, u64Equals))),
                                  Trimmed(strLine.substr(u64Equals + 1)));
        }
    }
    return strLines;
}

/* Why a configuration is not read by who only asks about it; "" if it is. */
std::string WhyNotRead(const char *i_pPath)
{
    struct stat stStat;
    if (stat(i_pPath, &stStat) != 0 || access(i_pPath, R_OK) != 0) {
        return strerror(errno);
    }
    if (!S_ISREG(stStat.st_mode)) {
        return "it is no regular file";
    }
    /* Those of proc(5) have no size, and some of them no end. */
    return stStat.st_size == 0           ? "it is empty"
           : stStat.st_size > kMostBytes ? "it is longer than a megabyte"
                                         : "";
}

/* The appender that a key speaks of; "" for other keys. */
std::string AppenderOf(const std::string &i_strKey)
{
    if (!i_strKey.starts_with(kAppenderPrefix)) {
        return "";
    }
    const std::string strName = i_strKey.substr(kAppenderPrefix.size());
    return strName.substr(0, strName.find('.'));
}

Names AppendersIn(const Lines &i_strLines)
{
    Names strNames;
    for (const auto &[strKey, strValue] : i_strLines) {
        const std::string strName = AppenderOf(strKey);
        if (!strName.empty() && !Has(strNames, strName)) {
            strNames.push_back(strName);
        }
    }
    return strNames;
}

/* Why log4cpp refuses the file; "" if it took it. */
std::string Refusal(const std::string &i_strPath)
{
    try {
        log4cpp::PropertyConfigurator::configure(i_strPath);
        return "";
    } catch (const std::exception &objFailure) {
        return objFailure.what();
    }
}

std::string Refusal(const Lines &i_strLines)
{
    std::string strText;
    for (const auto &[strKey, strValue] : i_strLines) {
        strText += strKey + "=" + strValue + "\n";
    }
    /* The library reads files only. */
    UniqueFd objFile(memfd_create("log", MFD_CLOEXEC));
    if (write(objFile.Get(), strText.data(), strText.size()) !=
        static_cast<ssize_t>(strText.size())) {
        return "allocation failed";
    }
    return Refusal("/proc/self/fd/" + std::to_string(objFile.Get()));
}

bool AllOpen(const Names &i_strAppenders)
{
    return std::all_of(i_strAppenders.begin(), i_strAppenders.end(), [](const auto &strName) {
        Appender *pAppender = Appender::getAppender(strName);
        return pAppender != nullptr && pAppender->reopen();
    });
}

/* A category's value, "LEVEL, appender, ...", with what of it can be used. */
std::string UsableCategory(const std::string &i_strKey, const std::string &i_strValue,
                           const Names &i_strDefined, const Names &i_strUsable, Names *o_pProblems)
{
    const std::size_t u64Comma = i_strValue.find(',');
    std::string strUsable = Trimmed(std::string_view(i_strValue).substr(0, u64Comma));
    try {
        if (!strUsable.empty() || i_strKey == kRootKey) {
            (void)log4cpp::Priority::getPriorityValue(strUsable);
        }
    } catch (const std::invalid_argument &) {
        o_pProblems->push_back("level <" + strUsable + "> of " + i_strKey + " is unknown");
        strUsable = i_strKey == kRootKey ? "INFO" : "";
    }
    for (std::size_t u64At = u64Comma; u64At != i_strValue.npos;) {
        const std::size_t u64Next = i_strValue.find(',', u64At + 1);
        const std::string strName =
            Trimmed(std::string_view(i_strValue).substr(u64At + 1, u64Next - u64At - 1));
        if (Has(i_strUsable, strName)) {
            strUsable += ", " + strName;
        } else if (!Has(i_strDefined, strName)) {
            o_pProblems->push_back("appender <" + strName + "> of " + i_strKey + " is not defined");
        }
        u64At = u64Next;
    }
    return strUsable;
}

bool IsCategory(const std::string &i_strKey)
{
    return i_strKey == kRootKey || i_strKey.starts_with(kCategoryPrefix);
}

/* Whether every level is known and every appender that is named is defined. Where there are no
 * appenders at all the library attaches what is none, and crashes at the first line. */
bool NamesOnlyWhatIsDefined(const Lines &i_strLines)
{
    const Names strDefined = AppendersIn(i_strLines);
    Names strProblems;
    for (const auto &[strKey, strValue] : i_strLines) {
        if (IsCategory(strKey)) {
            (void)UsableCategory(strKey, strValue, strDefined, strDefined, &strProblems);
        }
    }
    return strProblems.empty();
}

/* What of the configuration can be used. */
Lines Usable(const Lines &i_strLines, Names *o_pProblems)
{
    const Names strDefined = AppendersIn(i_strLines);
    Names strUsable;
    for (const std::string &strName : strDefined) {
        Lines strTried = {{kRootKey, "INFO"}};
        for (const auto &objLine : i_strLines) {
            if (AppenderOf(objLine.first) == strName) {
                strTried.push_back(objLine);
            }
        }
        const std::string strRefusal = Refusal(strTried);
        if (!strRefusal.empty()) {
            o_pProblems->push_back(strRefusal);
        } else if (!AllOpen({strName})) {
            o_pProblems->push_back("the file of appender <" + strName + "> cannot be opened");
        } else {
            strUsable.push_back(strName);
        }
        Forget({strName});
    }
    Lines strResult;
    bool bRoot = false;
    for (const auto &[strKey, strValue] : i_strLines) {
        const std::string strName = AppenderOf(strKey);
        bRoot = bRoot || strKey == kRootKey;
        if (IsCategory(strKey)) {
            strResult.emplace_back(
                strKey, UsableCategory(strKey, strValue, strDefined, strUsable, o_pProblems));
        } else if (strName.empty() || Has(strUsable, strName)) {
            strResult.emplace_back(strKey, strValue);
        }
    }
    if (!bRoot) {
        o_pProblems->push_back("there is no " + std::string(kRootKey));
        strResult.emplace_back(kRootKey, "INFO");
    }
    return strResult;
}

/* Whether somebody can read what the category is given. */
bool IsHeard(Category &i_objCategory)
{
    for (Appender *pAppender : i_objCategory.getAllAppenders()) {
        const bool bStream = dynamic_cast<log4cpp::OstreamAppender *>(pAppender) != nullptr;
        if (!bStream || !IsNullDevice(STDOUT_FILENO)) {
            return true;
        }
    }
    Category *pParent = i_objCategory.getParent();
    return i_objCategory.getAdditivity() && pParent != nullptr && IsHeard(*pParent);
}

/* Takes over what can be used of the configuration. True if that was all of it. */
bool TakeOver(const char *i_pPath, const Lines &i_strLines, Names *o_pProblems)
{
    const Names strAppenders = AppendersIn(i_strLines);
    std::string strRefusal;
    if (NamesOnlyWhatIsDefined(i_strLines)) {
        strRefusal = Refusal(std::string(i_pPath));
        if (strRefusal.empty() && AllOpen(strAppenders)) {
            return true;
        }
    }
    Forget(strAppenders);
    if (i_strLines.empty()) {
        o_pProblems->push_back(strRefusal);
        LogUntilConfigured();
        Category::getRoot().removeAllAppenders();
        return false;
    }
    const std::string strStill = Refusal(Usable(i_strLines, o_pProblems));
    if (!strStill.empty()) {
        o_pProblems->push_back(strStill);
    }
    return false;
}
} // namespace

void LogUntilConfigured()
{
    Category &objRoot = Category::getRoot();
    Category &objCategory = Category::getInstance(kCategory);
    objCategory.removeAllAppenders();
    objCategory.setAdditivity(true);
    objCategory.setPriority(log4cpp::Priority::NOTSET);
    objRoot.setPriority(log4cpp::Priority::INFO);
    objRoot.removeAllAppenders();
    objRoot.addAppender(MakeFallback(nullptr));
}

void ConfigureLog(const char *i_pPath, const char *i_pFallback)
{
    Names strProblems;
    if (TakeOver(i_pPath, ReadLines(i_pPath), &strProblems)) {
        return;
    }
    Category &objCategory = Category::getInstance(kCategory);
    if (!IsHeard(objCategory)) {
        objCategory.addAppender(MakeFallback(i_pFallback));
    }
    for (const std::string &strProblem : strProblems) {
        LOG_ERROR("log configuration %s: %s", i_pPath, strProblem.c_str());
    }
}

std::vector<std::string> CheckLogConfig(const char *i_pPath)
{
    const std::string strNotRead = WhyNotRead(i_pPath);
    if (!strNotRead.empty()) {
        return {"the file is not read: " + strNotRead};
    }
    const Lines strLines = ReadLines(i_pPath);
    Names strNewFiles;
    for (const auto &[strKey, strValue] : strLines) {
        struct stat stStat;
        if (!strKey.ends_with(kFileKey)) {
            continue;
        }
        if (stat(strValue.c_str(), &stStat) != 0) {
            strNewFiles.push_back(strValue);
        } else if (S_ISFIFO(stStat.st_mode)) {
            return {"the log file " + strValue + " is a pipe: opening it would wait for a reader"};
        }
    }
    Names strProblems;
    (void)TakeOver(i_pPath, strLines, &strProblems);
    Forget(AppendersIn(strLines));
    for (const std::string &strFile : strNewFiles) {
        unlink(strFile.c_str());
    }
    return strProblems;
}

std::string FirstLogFile(const char *i_pPath)
{
    if (WhyNotRead(i_pPath).empty()) {
        for (const auto &[strKey, strValue] : ReadLines(i_pPath)) {
            if (strKey.ends_with(kFileKey)) {
                return strValue;
            }
        }
    }
    return "";
}

/*
 * save.
 */
#include "tools/ctl_save.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include <CLI/CLI.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include "common/box/param_table.h"
#include "tools/param_save.h"
#include "tools/report.h"

namespace
{
constexpr std::chrono::milliseconds kAnswerTime(5000);

/* Where each setting stands in the parameter table. */
constexpr std::array<PARAM_ROW, STREAM_SETTING_COUNT> kRows = {
    PARAM_H264_ENABLE, PARAM_H264_GOP,    PARAM_H264_MODE,       PARAM_H264_BITRATE,
    PARAM_PREV_ENABLE, PARAM_PREV_HEIGHT, PARAM_PREV_REFRESHRATE};

/* What the daemon takes the file's row for. */
CFieldValue FromRow(std::size_t i_u64Field, const char *i_pText)
{
    const PARAM_VALUE_S stValue = EvaluateParam(g_aParams[kRows[i_u64Field]], i_pText);
    switch (STREAM_SETTINGS[i_u64Field].eKind) {
    case SettingKind::Flag:
        return stValue.s32Number == 1;
    case SettingKind::Number:
        return stValue.s32Number;
    default:
        return stValue.strText;
    }
}

std::string ToText(const CFieldValue &i_xValue)
{
    if (const auto *pFlag = std::get_if<Bool>(&i_xValue)) {
        return *pFlag ? "true" : "false";
    }
    const auto *pNumber = std::get_if<SInt32>(&i_xValue);
    return pNumber != nullptr ? std::to_string(*pNumber) : std::get<std::string>(i_xValue);
}

Bool IsLink(const std::string &i_strFile)
{
    struct stat stStat = {};
    return lstat(i_strFile.c_str(), &stStat) == 0 && S_ISLNK(stStat.st_mode);
}

/* A file that is missing or damaged says the defaults; o_strError: why one cannot be read, and
 * o_strDamage: why it will not be edited. */
CFieldValues ReadFile(const std::string &i_strFile, std::string &o_strError,
                      std::string &o_strDamage)
{
    struct stat stStat = {};
    RQ_XMLParser objParser(i_strFile.c_str());
    (void)objParser.Load();
    if ((stat(i_strFile.c_str(), &stStat) != 0 || access(i_strFile.c_str(), R_OK) != 0) &&
        (errno != ENOENT || IsLink(i_strFile))) {
        o_strError = i_strFile +
                     (errno != ENOENT ? ": " : " is a link to a file that is not there: ") +
                     strerror(errno);
    } else if (stStat.st_mode != 0 && !S_ISREG(stStat.st_mode)) {
        o_strError = i_strFile + ": " + objParser.LoadError();
    } else if (strstr(objParser.LoadError(), "EMPTY_DOCUMENT") == nullptr && stStat.st_size > 0) {
        o_strDamage = objParser.LoadError();
    }
    const PARAM_ELEMENTS pElements = FindParams(objParser);
    CFieldValues objValues;
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        const auto *pElement = pElements[kRows[i]];
        objValues[i] = FromRow(i, pElement != nullptr ? pElement->GetText() : nullptr);
    }
    return objValues;
}
} // namespace

int SaveSettings(const CTL_CONTEXT_S &i_stContext, const CFieldValues &i_objRunning,
                 const SAVE_OPTIONS_S &i_stOptions)
{
    std::string strError;
    std::string strDamage;
    const CFieldValues objFile = ReadFile(i_stOptions.strFile, strError, strDamage);
    if (!strError.empty()) {
        return i_stContext.Fail(CTL_SYSTEM_ERROR, "nothing was saved: " + strError);
    }
    std::vector<PARAM_CHANGE_S> objChanges;
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objRunning[i] && i_objRunning[i] != objFile[i]) {
            const PARAM_S &stRow = g_aParams[kRows[i]];
            objChanges.push_back({stRow.section, stRow.name, ToText(*i_objRunning[i])});
            if (FromRow(i, objChanges.back().strValue.c_str()) != *i_objRunning[i]) {
                return i_stContext.Fail(
                    CTL_NOT_TAKEN, std::string("nothing was saved: the daemon says ") +
                                       STREAM_SETTINGS[i].pName + " " + objChanges.back().strValue +
                                       ", which is no value for the file; a daemon that is still "
                                       "starting, or waits for the file's lock, has no values yet");
            }
        }
    }
    if (!i_stOptions.bJson) {
        i_stContext.objOut << FormatChanges(objFile, i_objRunning) << std::flush;
    }
    if (i_stOptions.bDryRun && !objChanges.empty() && !strDamage.empty()) {
        return i_stContext.Fail(CTL_NOT_TAKEN,
                                i_stOptions.strFile + " is damaged and would stay: " + strDamage);
    }
    const bool bSave = !objChanges.empty() && !i_stOptions.bDryRun;
    const SaveResult eResult =
        bSave ? SaveParams(i_stOptions.strFile, objChanges, strError) : SaveResult::Saved;
    if (eResult != SaveResult::Saved) {
        return i_stContext.Fail(
            eResult == SaveResult::SystemError ? CTL_SYSTEM_ERROR : CTL_NOT_TAKEN, strError);
    }
    if (i_stOptions.bJson) {
        i_stContext.objOut << FormatSavedJson(i_stOptions.strFile, bSave, objFile, i_objRunning);
    } else {
        i_stContext.objOut << (objChanges.empty() ? "nothing to save: the same is in "
                               : bSave            ? "saved in "
                                                  : "not saved, would be in ")
                           << i_stOptions.strFile << "\n";
    }
    return CTL_OK;
}

CRunCommand DescribeSave(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext)
{
    const auto pOptions = std::make_shared<SAVE_OPTIONS_S>();
    const auto pTimeout = std::make_shared<std::string>();
    io_objApp.add_flag("--dry-run", pOptions->bDryRun, "Show the difference and write nothing");
    io_objApp.add_option("--file", pOptions->strFile, "Another file than " + pOptions->strFile)
        ->type_name("FILE");
    AddJsonOption(io_objApp, pOptions->bJson);
    AddTimeOption(io_objApp, "--timeout", *pTimeout, "How long to wait for an answer (default 5s)");
    return [&i_stContext, pOptions, pTimeout] {
        int s32Code = CTL_OK;
        const auto objRunning =
            AskOrFail(i_stContext, ParseDuration(*pTimeout).value_or(kAnswerTime), s32Code);
        return objRunning ? SaveSettings(i_stContext, *objRunning, *pOptions) : s32Code;
    };
}

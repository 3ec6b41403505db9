/*
 * Saving in a parameter file of arbitrary bytes: the daemon reads the new value and everything else
 * as before, the bytes differ in one place, and saving the same again changes nothing. What cannot
 * be edited stays as it is.
 */
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

#include "common/box/param_table.h"
#include "framework/assertion.h"
#include "tools/param_save.h"

namespace
{
using CTexts = std::vector<std::optional<std::string>>;

std::string Read(const std::string &i_strPath)
{
    std::ifstream objFile(i_strPath);
    return {std::istreambuf_iterator<char>(objFile), {}};
}

CTexts Texts(const std::string &i_strPath)
{
    RQ_XMLParser objParser(i_strPath.c_str());
    (void)objParser.Load();
    CTexts strTexts;
    for (const auto *pElement : FindParams(objParser)) {
        const char *pText = pElement != nullptr ? pElement->GetText() : nullptr;
        strTexts.push_back(pText != nullptr ? std::optional<std::string>(pText) : std::nullopt);
    }
    return strTexts;
}

/* The longest beginning and end that both have, without counting a byte twice. */
std::size_t CommonBytes(const std::string &i_strA, const std::string &i_strB)
{
    const std::size_t u64Least = std::min(i_strA.size(), i_strB.size());
    std::size_t u64Front = 0;
    while (u64Front < u64Least && i_strA[u64Front] == i_strB[u64Front]) {
        u64Front++;
    }
    std::size_t u64Back = 0;
    while (u64Back < u64Least - u64Front &&
           i_strA[i_strA.size() - 1 - u64Back] == i_strB[i_strB.size() - 1 - u64Back]) {
        u64Back++;
    }
    return u64Front + u64Back;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *i_pData, std::size_t i_u64Size)
{
    static const std::string s_strPath = "/dev/shm/save_fuzz." + std::to_string(getpid());
    const std::string strOld(reinterpret_cast<const char *>(i_pData), i_u64Size);
    std::ofstream(s_strPath) << strOld;
    CTexts strExpected = Texts(s_strPath);
    strExpected[PARAM_H264_GOP] = "30";
    const std::vector<PARAM_CHANGE_S> objChanges = {{"CHANNEL_1", "h264_stream_gop", "30"}};
    std::string strError;
    const SaveResult eResult = SaveParams(s_strPath, objChanges, strError);
    assert(eResult != SaveResult::SystemError);
    const std::string strNew = Read(s_strPath);
    if (eResult == SaveResult::Saved) {
        assert(Texts(s_strPath) == strExpected);
        const bool bBlank = strOld.find_first_not_of(" \t\r\n") == std::string::npos;
        /* One value, or an element with what surrounds it. */
        assert(bBlank || strNew.size() - CommonBytes(strOld, strNew) < 200 + strOld.size() / 2);
        assert(SaveParams(s_strPath, objChanges, strError) == SaveResult::Saved);
        assert(Read(s_strPath) == strNew);
    } else {
        assert(strNew == strOld);
    }
    unlink(s_strPath.c_str());
    return 0;
}

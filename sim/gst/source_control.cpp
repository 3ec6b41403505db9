/*
 * Reads the stand-in source's order file when it changes.
 */
#include "sim/gst/source_control.h"

#include <cstdio>
#include <cstring>

namespace
{
const char kFolder[] = "/run/mv3300-sim/";
constexpr SInt32 kLongestStartMs = 600000;
constexpr std::size_t kLineSize = 128;

bool SameFile(const struct stat &i_stA, const struct stat &i_stB)
{
    return i_stA.st_ino == i_stB.st_ino && i_stA.st_size == i_stB.st_size &&
           i_stA.st_mtim.tv_sec == i_stB.st_mtim.tv_sec &&
           i_stA.st_mtim.tv_nsec == i_stB.st_mtim.tv_nsec;
}
} // namespace

Bool ParseSimOrder(const std::string &i_strLine, SIM_ORDER_S *o_pOrder)
{
    static const struct {
        const char *pWord;
        SIM_ORDER_E eKind;
    } kWords[] = {
        {"run", SIM_ORDER_RUN},     {"fail", SIM_ORDER_FAIL},     {"end", SIM_ORDER_END},
        {"stall", SIM_ORDER_STALL}, {"absent", SIM_ORDER_ABSENT},
    };
    SIM_ORDER_S stOrder;
    int s32Used = 0;
    const char *pLine = i_strLine.c_str();
    if (sscanf(pLine, "switch %5dx%5d@%3d%n", &stOrder.s32Width, &stOrder.s32Height,
               &stOrder.s32Fps, &s32Used) == 3 &&
        pLine[s32Used] == '\0' && stOrder.s32Width > 0 && stOrder.s32Height > 0 &&
        stOrder.s32Fps > 0) {
        stOrder.eKind = SIM_ORDER_SWITCH;
        *o_pOrder = stOrder;
        return true;
    }
    stOrder = SIM_ORDER_S();
    if (sscanf(pLine, "slow %6d%n", &stOrder.s32Milliseconds, &s32Used) == 1 &&
        pLine[s32Used] == '\0' && stOrder.s32Milliseconds >= 0 &&
        stOrder.s32Milliseconds <= kLongestStartMs) {
        stOrder.eKind = SIM_ORDER_SLOW;
        *o_pOrder = stOrder;
        return true;
    }
    for (const auto &stWord : kWords) {
        if (i_strLine == stWord.pWord) {
            *o_pOrder = SIM_ORDER_S();
            o_pOrder->eKind = stWord.eKind;
            return true;
        }
    }
    return false;
}

void CSourceControl::SetDevice(const std::string &i_strDevice)
{
    m_strPath = kFolder + i_strDevice.substr(i_strDevice.rfind('/') + 1);
    m_stSeen = {};
    m_stOrder = SIM_ORDER_S();
}

const SIM_ORDER_S &CSourceControl::Read()
{
    struct stat stNow = {};
    if (stat(m_strPath.c_str(), &stNow) != 0) {
        m_stSeen = {};
        m_stOrder = SIM_ORDER_S();
    } else if (!SameFile(stNow, m_stSeen)) {
        m_stSeen = stNow;
        Load();
    }
    return m_stOrder;
}

void CSourceControl::Load()
{
    /* Not a stream: to the thread sanitizer its calls would be libstdc++'s, not the stand-in's. */
    char szLine[kLineSize] = "";
    FILE *pFile = fopen(m_strPath.c_str(), "re");
    if (pFile != nullptr) {
        (void)!fgets(szLine, sizeof(szLine), pFile);
        fclose(pFile);
    }
    const std::string strLine(szLine, strcspn(szLine, "\n"));
    if (szLine[0] == '\0') {
        return; /* a shell empties the file before it writes the order: the old one holds */
    }
    if (!ParseSimOrder(strLine, &m_stOrder)) {
        fprintf(stderr,
                "stand-in source: \"%s\" in %s is not an order (run, fail, end, stall, "
                "switch WxH@F, absent, slow MS); the one before it holds\n",
                strLine.c_str(), m_strPath.c_str());
    }
}

void CSourceControl::Done()
{
    m_stOrder = SIM_ORDER_S();
    char szRest[kLineSize] = ""; /* of the file, behind the order: it is the capture device's */
    if (FILE *pFile = fopen(m_strPath.c_str(), "re")) {
        (void)!(fgets(szRest, sizeof(szRest), pFile) && fgets(szRest, sizeof(szRest), pFile));
        fclose(pFile);
    }
    if (FILE *pFile = fopen(m_strPath.c_str(), "we")) {
        fprintf(pFile, "run\n%s", strncmp(szRest, "input ", 6) == 0 ? szRest : "");
        fclose(pFile);
    }
}

/*
 * sim-uevent: announces an input timing as the HDMI bridge's driver would.
 */
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <CLI/CLI.hpp>

#include "sim/uevent/send.h"
#include "sim/uevent/uevent.h"

namespace
{
/* "NAME=value" in its two halves; a name is needed, a value may be empty. */
std::pair<std::string, std::string> SplitVar(const std::string &i_strVar)
{
    const size_t u64Sign = i_strVar.find('=');
    if (u64Sign == std::string::npos || u64Sign == 0) {
        throw std::invalid_argument("\"" + i_strVar + "\" is not NAME=VALUE");
    }
    return {i_strVar.substr(0, u64Sign), i_strVar.substr(u64Sign + 1)};
}

void Print(const UeventVars &i_objVars)
{
    printf("sent:");
    for (const auto &stVar : i_objVars) {
        printf(" %s=%s", stVar.first.c_str(), stVar.second.c_str());
    }
    printf("\n");
}

int Run(const std::string &i_strTiming, bool i_bNone, const std::vector<std::string> &i_objRaw,
        const std::vector<std::string> &i_objWithout, bool i_bQuiet)
{
    std::string strEvent = "0x0@0-0";
    if (!i_bNone && !i_strTiming.empty() && !TimingToEvent(i_strTiming, &strEvent)) {
        throw std::invalid_argument(
            "\"" + i_strTiming +
            "\" is not a timing: say 1920x1080@60-0 (the last digit is 1 for interlaced), "
            "1920x1080@60 or 1080p60; use --raw EVENT=TEXT to send any text");
    }
    UeventVars objVars = BridgeEvent(strEvent);
    for (const std::string &strVar : i_objRaw) {
        const auto stVar = SplitVar(strVar);
        SetVar(&objVars, stVar.first, stVar.second);
    }
    for (const std::string &strName : i_objWithout) {
        std::erase_if(objVars, [&](const auto &stVar) { return stVar.first == strName; });
    }
    const int s32Error = SendToKernel(UeventPayload(objVars));
    if (s32Error != 0) {
        std::string strWhy = std::generic_category().message(s32Error);
        if (s32Error == EPERM) {
            strWhy += " (only root of this network namespace may: run it in the bench box, "
                      "sim/box sim-uevent ...)";
        }
        throw std::runtime_error("the kernel refused the event: " + strWhy);
    }
    if (!i_bQuiet) {
        Print(objVars);
    }
    return 0;
}
} // namespace

int main(int argc, char **argv)
{
    std::string strTiming;
    bool bNone = false;
    bool bQuiet = false;
    std::vector<std::string> objRaw;
    std::vector<std::string> objWithout;

    CLI::App objApp("Announces an HDMI input timing as the bridge's driver would.", "sim-uevent");
    auto *pTiming = objApp.add_option("timing", strTiming,
                                      "1920x1080@60-0 (the last digit is 1 for interlaced), "
                                      "1920x1080@60 or 1080p60");
    auto *pNone = objApp.add_flag("--none", bNone, "the signal is lost: 0x0@0-0");
    pNone->excludes(pTiming);
    auto *pRaw = objApp
                     .add_option("--raw", objRaw,
                                 "NAME=VALUE: sets or adds a variable of the event, as it "
                                 "stands (may be repeated)")
                     ->allow_extra_args(false);
    objApp.add_option("--without", objWithout, "NAME: leaves the variable out (may be repeated)")
        ->allow_extra_args(false);
    objApp.add_flag("-q,--quiet", bQuiet, "prints nothing on success");
    objApp.callback([&] {
        if (strTiming.empty() && !bNone && pRaw->count() == 0) {
            throw CLI::ValidationError("sim-uevent", "say a timing, --none or --raw NAME=VALUE");
        }
    });
    try {
        objApp.parse(argc, argv);
    } catch (const CLI::ParseError &objError) {
        return objApp.exit(objError) == 0 ? 0 : 2;
    }
    try {
        return Run(strTiming, bNone, objRaw, objWithout, bQuiet);
    } catch (const std::invalid_argument &objError) {
        fprintf(stderr, "sim-uevent: %s\n", objError.what());
        return 2;
    } catch (const std::exception &objError) {
        fprintf(stderr, "sim-uevent: %s\n", objError.what());
        return 1;
    }
}

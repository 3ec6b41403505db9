/*
 * Where the stream goes.
 */
#include "tools/session.h"

#include <charconv>
#include <vector>

#include <arpa/inet.h>
#include <nlohmann/json.hpp>
#include <time.h>
#include <unistd.h>

#include "common/box/utils.h"
#include "guard/base64.h"
#include "tools/check_file.h"
#include "tools/guard_state.h"

namespace
{
constexpr char kInterface[] = "eth0";

Ipv4 ToIpv4(const std::string &i_strText)
{
    Ipv4 u8Address = {};
    (void)inet_pton(AF_INET, i_strText.c_str(), u8Address.data());
    return u8Address;
}

TARGET_S TargetOf(const RECEIVER_S &i_stReceiver)
{
    TARGET_S stTarget = {i_stReceiver.strAddress, 0, i_stReceiver.strProblem};
    const char *pEnd = i_stReceiver.strText.data() + i_stReceiver.strText.size();
    const char *pPort = i_stReceiver.strText.data() + i_stReceiver.strText.rfind(':') + 1;
    if (stTarget.strProblem.empty() &&
        std::from_chars(pPort, pEnd, stTarget.u16Port).ec != std::errc()) {
        stTarget.strProblem = "no port";
    }
    if (!stTarget.strProblem.empty()) {
        stTarget.strProblem = "receiver " + i_stReceiver.strText + ": " + stTarget.strProblem;
    }
    return stTarget;
}
} // namespace

TARGET_S FindTarget(const std::string &i_strFile, const std::string &i_strTo,
                    std::string *o_strNote)
{
    std::string strList = i_strTo;
    if (i_strTo.empty()) {
        const CHECKED_FILE_S stFile = CheckParamFile(i_strFile);
        if (stFile.bRefused) {
            TARGET_S stTarget;
            stTarget.strProblem = "the receivers stand in " + i_strFile + ": " +
                                  stFile.strProblems[0] + "; --to HOST:PORT names one";
            return stTarget;
        }
        if (!stFile.strProblems.empty() && o_strNote != nullptr) {
            *o_strNote = i_strFile + ": " + stFile.strProblems[0];
        }
        strList = stFile.strAddrList;
    }
    const std::vector<RECEIVER_S> objReceivers = CheckReceivers(strList);
    if (!objReceivers.empty()) {
        if (objReceivers.size() > 1 && o_strNote != nullptr) {
            *o_strNote += (o_strNote->empty() ? "" : "; ") + std::string("for the first of ") +
                          std::to_string(objReceivers.size()) +
                          " receivers; --to HOST:PORT names another";
        }
        return TargetOf(objReceivers[0]);
    }
    TARGET_S stTarget;
    if (get_multicast_ip(stTarget.strAddress, kInterface) != 0) {
        stTarget.strProblem =
            "the list of receivers is empty, and eth0 has no hardware address for a group";
    }
    return stTarget;
}

SESSION_S MakeSession(const TARGET_S &i_stTarget, const nlohmann::json &i_objState)
{
    SESSION_S stSession;
    char szName[256] = "";
    (void)gethostname(szName, sizeof(szName) - 1);
    stSession.strName = szName;
    char szOrigin[IP_TEXT_SIZE] = "";
    (void)GetLocalIPStr(kInterface, szOrigin);
    stSession.u8Origin = ToIpv4(szOrigin);
    stSession.u8Group = ToIpv4(i_stTarget.strAddress);
    stSession.u16Port = i_stTarget.u16Port;
    stSession.u64Id = stSession.u64Version = static_cast<UInt64>(time(nullptr));
    const nlohmann::json objType = StateValue(i_objState, "stream", "payload_type");
    if (objType.is_number_unsigned() && objType < 128) {
        stSession.u8PayloadType = objType.get<UInt8>();
    }
    const nlohmann::json objSps = StateValue(i_objState, "stream", "sps");
    const nlohmann::json objPps = StateValue(i_objState, "stream", "pps");
    if (objSps.is_string() && objPps.is_string()) {
        stSession.objSps = FromBase64(objSps.get<std::string>());
        stSession.objPps = FromBase64(objPps.get<std::string>());
    }
    return stSession;
}

bool HasParameterSets(const SESSION_S &i_stSession)
{
    return i_stSession.objSps.size() >= 4 && !i_stSession.objPps.empty();
}

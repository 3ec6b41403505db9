/*
 * receive-kit.
 */
#include "tools/ctl_receive_kit.h"

#include <memory>
#include <sstream>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "tools/guard_state.h"
#include "tools/session.h"

namespace
{
constexpr char kSdpFile[] = "mv3300.sdp";

struct OPTIONS_S {
    std::string strFile = "/config/mv3300/param.xml";
    std::string strTo;
    bool bSdp = false;
    bool bMediaServer = false;
    bool bPlayers = false;
    bool bJson = false;
};

struct PLAYER_S {
    const char *pName;
    std::string strLine;
};

/* A path of a media server that takes RTP by a session description. */
std::string MediaServerText(const TARGET_S &i_stTarget, const std::string &i_strSdp)
{
    std::string strText = "paths:\n  mv3300:\n    source: udp+rtp://" + i_stTarget.strAddress +
                          ":" + std::to_string(i_stTarget.u16Port) + "\n    rtpSDP: |\n";
    std::istringstream objLines(i_strSdp);
    for (std::string strLine; std::getline(objLines, strLine);) {
        strText += "      " + strLine.substr(0, strLine.find('\r')) + "\n";
    }
    return strText;
}

std::vector<PLAYER_S> Players(const TARGET_S &i_stTarget, const SESSION_S &i_stSession)
{
    const std::string strFile = kSdpFile;
    const std::string strProtocols = "protocol_whitelist=file,udp,rtp";
    const std::string strGroup =
        (i_stSession.u8Group[0] & 0xF0) == 0xE0 ? "address=" + i_stTarget.strAddress + " " : "";
    return {{"ffplay", "ffplay -protocol_whitelist file,udp,rtp -fflags nobuffer " + strFile},
            {"mpv",
             "mpv --profile=low-latency --demuxer-lavf-o-append=" + strProtocols + " " + strFile},
            {"gst-launch-1.0",
             "gst-launch-1.0 udpsrc " + strGroup + "port=" + std::to_string(i_stTarget.u16Port) +
                 " caps=\"application/x-rtp,media=video,clock-rate=90000,encoding-name=H264,"
                 "payload=" +
                 std::to_string(i_stSession.u8PayloadType) +
                 "\" ! rtpjitterbuffer latency=100 ! rtph264depay ! avdec_h264 ! videoconvert ! "
                 "autovideosink"}};
}

void PrintText(std::ostream &io_objOut, const OPTIONS_S &i_stOptions, const std::string &i_strSdp,
               const std::string &i_strServer, const std::vector<PLAYER_S> &i_objPlayers)
{
    const bool bAll = !i_stOptions.bSdp && !i_stOptions.bMediaServer && !i_stOptions.bPlayers;
    if (bAll) {
        io_objOut << "# Session description, for a file " << kSdpFile << " (--sdp)\n";
    }
    if (bAll || i_stOptions.bSdp) {
        io_objOut << i_strSdp;
    }
    if (bAll) {
        io_objOut << "\n# Path of a media server (--mediamtx)\n";
    }
    if (bAll || i_stOptions.bMediaServer) {
        io_objOut << i_strServer;
    }
    if (bAll) {
        io_objOut << "\n# Players, beside the file " << kSdpFile << " (--players)\n";
    }
    for (const PLAYER_S &stPlayer : i_objPlayers) {
        if (bAll || i_stOptions.bPlayers) {
            io_objOut << stPlayer.strLine << "\n";
        }
    }
}

int Run(const CTL_CONTEXT_S &i_stContext, const OPTIONS_S &i_stOptions)
{
    std::string strNote;
    const TARGET_S stTarget = FindTarget(i_stOptions.strFile, i_stOptions.strTo, &strNote);
    if (!stTarget.strProblem.empty()) {
        return i_stContext.Fail(CTL_NOT_TAKEN, stTarget.strProblem);
    }
    std::string strFact;
    const SESSION_S stSession = MakeSession(stTarget, ReadGuardState(&strFact));
    if (!HasParameterSets(stSession)) {
        strNote += (strNote.empty() ? "" : "; ") +
                   std::string("without the parameter sets, which are not known: ") +
                   (strFact.empty() ? "no stream was seen" : strFact);
    }
    const std::string strSdp = SdpText(stSession);
    const std::string strServer = MediaServerText(stTarget, strSdp);
    const std::vector<PLAYER_S> objPlayers = Players(stTarget, stSession);
    if (i_stOptions.bJson) {
        nlohmann::ordered_json objLines = nlohmann::ordered_json::object();
        for (const PLAYER_S &stPlayer : objPlayers) {
            objLines[stPlayer.pName] = stPlayer.strLine;
        }
        const nlohmann::ordered_json objResult = {
            {"address", stTarget.strAddress}, {"port", stTarget.u16Port}, {"sdp", strSdp},
            {"mediamtx", strServer},          {"players", objLines},      {"note", strNote}};
        i_stContext.objOut << objResult.dump(-1, ' ', false,
                                             nlohmann::ordered_json::error_handler_t::replace)
                           << "\n";
        return CTL_OK;
    }
    PrintText(i_stContext.objOut, i_stOptions, strSdp, strServer, objPlayers);
    if (!strNote.empty()) {
        i_stContext.objErr << "mv3300ctl: " << strNote << "\n";
    }
    return CTL_OK;
}
} // namespace

CRunCommand DescribeReceiveKit(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext)
{
    const auto pOptions = std::make_shared<OPTIONS_S>();
    io_objApp.add_flag("--sdp", pOptions->bSdp, "A session description (RFC 8866) alone");
    io_objApp.add_flag("--mediamtx", pOptions->bMediaServer,
                       "A path for a media server that ingests RTP alone");
    io_objApp.add_flag("--players", pOptions->bPlayers, "Lines that start usual players alone");
    io_objApp
        .add_option("--to", pOptions->strTo,
                    "This receiver instead of the first one, or of the group")
        ->type_name("HOST:PORT");
    io_objApp
        .add_option("--file", pOptions->strFile, "Another parameter file than " + pOptions->strFile)
        ->type_name("FILE");
    AddJsonOption(io_objApp, pOptions->bJson);
    return [&i_stContext, pOptions] { return Run(i_stContext, *pOptions); };
}

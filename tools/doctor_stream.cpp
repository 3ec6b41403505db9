/*
 * The pipelines and what comes of them.
 */
#include "tools/doctor.h"

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "guard/files.h"
#include "tools/guard_state.h"

namespace
{
constexpr char kPicture[] = "/tmp/image.jpeg";
constexpr UInt16 kLocalCopy = 12350;
constexpr double kFreshPicture = 10; /* s */
constexpr std::size_t kLongest = 4 * 1024 * 1024;

FINDING_S ElementsFinding(const PATIENT_S &i_stPatient)
{
    const std::string &strProblem =
        i_stPatient.strTryH264.empty() ? i_stPatient.strTryJpeg : i_stPatient.strTryH264;
    return {"elements", strProblem.empty() ? Verdict::Yes : Verdict::No,
            strProblem.empty() ? "GStreamer takes both pipelines' descriptions" : strProblem,
            strProblem.empty()
                ? ""
                : "Install the GStreamer plug-in that is missing, then restart the daemon."};
}

FINDING_S PipelineFinding(const PATIENT_S &i_stPatient)
{
    if (i_stPatient.bPackets.value_or(false)) {
        return {"pipelines", Verdict::Yes, "packets come", ""};
    }
    if (!i_stPatient.ShouldStream()) {
        return {"pipelines", Verdict::NotKnown, "none has to run", ""};
    }
    std::size_t u64Run = 0;
    const std::string strRun = LastLine(i_stPatient.strLog, "Let's run [gst-h264]!", &u64Run);
    for (const char *pError :
         {"Received error in [gst-h264]", "pipeline could not be constructed"}) {
        std::size_t u64Error = 0;
        const std::string strLine = LastLine(i_stPatient.strLog, pError, &u64Error);
        if (!strLine.empty() && u64Error > u64Run) {
            return {"pipelines", Verdict::No, "the log: " + strLine,
                    "Play the text of the log's last 'gst cmd' line with gst-launch-1.0: it says "
                    "which element fails."};
        }
    }
    /* Then the guard hears nothing, whatever runs. */
    if (!i_stPatient.WantsPreview() ||
        StateValue(i_stPatient.objState, "relay", "listening") == false) {
        return {"pipelines", Verdict::NotKnown, i_stPatient.strPacketsFact, ""};
    }
    const std::string strCondition = i_stPatient.Condition();
    if (strCondition == "failed" || strCondition == "stalled") {
        return {"pipelines", Verdict::No,
                "the guard: " + i_stPatient.objState.value("text", strCondition),
                "Read the end of the log (" + i_stPatient.strLogFact +
                    "), and restart the daemon (systemctl restart mv3300d)."};
    }
    return {"pipelines", Verdict::NotKnown, strRun.empty() ? "the log has no start" : strRun, ""};
}

FINDING_S CopyFinding(const PATIENT_S &i_stPatient)
{
    const Bool bMissed = i_stPatient.ShouldStream() && i_stPatient.Condition() != "starting";
    return {
        "packets",
        !i_stPatient.bPackets   ? Verdict::NotKnown
        : *i_stPatient.bPackets ? Verdict::Yes
        : bMissed               ? Verdict::No
                                : Verdict::NotKnown,
        i_stPatient.strPacketsFact,
        i_stPatient.bPackets == std::optional(false) && bMissed
            ? "Announce the timing again (mv3300ctl announce), and read the log if nothing comes."
            : ""};
}

FINDING_S RelayFinding(const PATIENT_S &i_stPatient)
{
    if (!i_stPatient.WantsPreview()) {
        return {"relay", Verdict::NotKnown, "the preview is off: nothing has to be passed on", ""};
    }
    if (StateValue(i_stPatient.objState, "relay", "listening") == false) {
        return {
            "relay", Verdict::No, i_stPatient.strPacketsFact,
            "End the program that has 127.0.0.1 port 12350: the stream is the guard's to take."};
    }
    if (i_stPatient.objState.is_object()) {
        const Bool bRefused = StateValue(i_stPatient.objState, "relay", "refusing") == true;
        return {
            "relay", bRefused ? Verdict::No : Verdict::Yes,
            "the guard passed on " + StateValue(i_stPatient.objState, "relay", "forwarded").dump() +
                " packets; refused " + StateValue(i_stPatient.objState, "relay", "refused").dump() +
                ", dropped " + StateValue(i_stPatient.objState, "relay", "dropped").dump(),
            bRefused ? "Restart the daemon: its preview does not listen on 127.0.0.1 port 12345."
                     : ""};
    }
    const auto strUdp = ReadFile("/proc/net/udp", kLongest);
    const Bool bThere = strUdp && HasUdpPort(*strUdp, kLocalCopy);
    return {"relay",
            !strUdp  ? Verdict::NotKnown
            : bThere ? Verdict::Yes
                     : Verdict::No,
            (!bThere                             ? std::string("nobody")
             : i_stPatient.strCopyHolder.empty() ? "somebody"
                                                 : "process " + i_stPatient.strCopyHolder) +
                " listens on 127.0.0.1 port 12350",
            strUdp && !bThere ? "Start the guard (systemctl start mv3300-guard): without it no "
                                "preview picture appears."
                              : ""};
}

FINDING_S PreviewFinding(const PATIENT_S &i_stPatient)
{
    if (!i_stPatient.WantsPreview() || !i_stPatient.bPackets.value_or(false)) {
        return {"preview", Verdict::NotKnown,
                i_stPatient.WantsPreview() ? "no packets, no pictures" : "the preview is off", ""};
    }
    /* The picture is taken away every 3 s, until the next one comes. */
    struct stat stStat = {};
    for (int i = 0; i < 40 && stat(kPicture, &stStat) != 0; i++) {
        usleep(100000);
    }
    const auto f64Age = static_cast<double>(time(nullptr) - stStat.st_mtime);
    if (stStat.st_mtime != 0 && f64Age < kFreshPicture) {
        return {"preview", Verdict::Yes,
                std::string(kPicture) + " is " + std::to_string(static_cast<int>(f64Age)) +
                    " s old",
                ""};
    }
    const std::string strFact = std::string(kPicture) + " did not come within 4 s";
    if (i_stPatient.objState.is_object() && i_stPatient.Condition() != "preview-stalled") {
        return {"preview", Verdict::NotKnown, strFact + "; the guard does not call it stalled", ""};
    }
    return {"preview", Verdict::No, strFact,
            "See that the relay runs, then switch the preview off and on (mv3300ctl set --preview "
            "off, on)."};
}
} // namespace

std::vector<FINDING_S> DiagnosePipelines(const PATIENT_S &i_stPatient)
{
    return {ElementsFinding(i_stPatient), PipelineFinding(i_stPatient)};
}

std::vector<FINDING_S> DiagnoseStream(const PATIENT_S &i_stPatient)
{
    return {CopyFinding(i_stPatient), RelayFinding(i_stPatient), PreviewFinding(i_stPatient)};
}

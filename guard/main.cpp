/*
 * mv3300-guard: options and signals.
 */
#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <system_error>

#include <CLI/CLI.hpp>
#include <sys/signalfd.h>

#include "framework/signals.h"
#include "guard/guard.h"
#include "tools/control_channel.h"

namespace
{
/* The ranges of the options are comparisons, which let "nan" through. */
void CheckNumber(const char *i_pOption, double i_f64Number)
{
    if (!std::isfinite(i_f64Number)) {
        throw CLI::ValidationError(i_pOption, "is no number");
    }
}

/* Throws unless the stream may be sent to each of the ports: to the relay's own it would go round
 * for ever, to the preview's it goes already, and the control channel is no place for it. */
void CheckPorts(const std::vector<UInt16> &i_u16Ports)
{
    const CONTROL_ENDPOINT_S stControl;
    for (auto it = i_u16Ports.begin(); it != i_u16Ports.end(); ++it) {
        const char *pFault = *it == COPY_PORT      ? "is where the stream itself comes"
                             : *it == PREVIEW_PORT ? "is the preview's, which gets it anyway"
                             : *it == stControl.u16RequestPort || *it == stControl.u16ReplyPort
                                 ? "belongs to the daemon's control channel"
                             : std::find(i_u16Ports.begin(), it, *it) != it ? "is given twice"
                                                                            : nullptr;
        if (pFault != nullptr) {
            throw CLI::ValidationError("--also", "port " + std::to_string(*it) + " " + pFault);
        }
    }
}

/* Readable when the process is to end. */
UniqueFd MakeStop()
{
    const sigset_t stSignals = BlockSignals({SIGTERM, SIGINT});
    signal(SIGPIPE, SIG_IGN);
    UniqueFd objFd(signalfd(-1, &stSignals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!objFd) {
        throw std::system_error(errno, std::generic_category(), "no signals");
    }
    return objFd;
}
} // namespace

int main(int argc, char **argv)
{
    GUARD_OPTIONS_S stOptions;
    double f64Stall = 12;
    bool bNoRestart = false;
    bool bNoAnnounce = false;
    CLI::App objApp("Relays the local stream copy, remembers the input, starts again what failed, "
                    "and says in " +
                        std::string(STATE_FILE) + " how the box is.",
                    "mv3300-guard");
    objApp.set_version_flag("--version", MV3300_VERSION);
    objApp
        .add_option("--also", stOptions.u16Also,
                    "further port of 127.0.0.1 that gets the stream (may be repeated)")
        ->check(CLI::Range(1, 65535))
        ->allow_extra_args(false);
    objApp
        .add_option("--preview-rate", stOptions.f64PreviewRate,
                    "thin the preview's stream to about so many pictures a second (otherwise "
                    "only above 48, to 25 at the most)")
        ->check(CLI::Range(1.0, 60.0));
    objApp
        .add_option("--stall", f64Stall,
                    "seconds without a packet before the stream is started again (12)")
        ->check(CLI::Range(3.0, 3600.0));
    objApp
        .add_option("--budget", stOptions.stLimits.u32Budget, "restarts an hour at the most (12)")
        ->check(CLI::Range(1, 60));
    objApp.add_flag("--no-restart", bNoRestart, "never start a stream again");
    objApp.add_flag("--no-announce", bNoAnnounce, "never tell a new daemon the timing");
    objApp.add_flag("--sap", stOptions.bSap, "announce the multicast session by SAP");
    objApp.add_option("--device", stOptions.strDevice, "capture device (/dev/video0)");
    objApp.add_option("--folder", stOptions.strFolder, "folder of the state (/run/mv3300)");
    try {
        objApp.parse(argc, argv);
        CheckNumber("--stall", f64Stall);
        CheckNumber("--preview-rate", stOptions.f64PreviewRate);
        CheckPorts(stOptions.u16Also);
    } catch (const CLI::ParseError &objError) {
        return objApp.exit(objError) == 0 ? 0 : 2;
    }
    stOptions.bRestart = !bNoRestart;
    stOptions.bAnnounce = !bNoAnnounce;
    stOptions.stLimits.s64StallMs = static_cast<SInt64>(f64Stall * 1000);
    try {
        const UniqueFd objStop = MakeStop();
        CGuard(std::move(stOptions)).Run(objStop.Get());
    } catch (const std::exception &objError) {
        fprintf(stderr, "mv3300-guard: %s\n", objError.what());
        return 1;
    }
    return 0;
}

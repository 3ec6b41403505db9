/*
 * mv3300-panel: the encoder's page.
 *
 * The main thread waits for a signal; the others listen, look at the guard's state, take the
 * stream, and serve a connection each.
 */
#include <csignal>
#include <cstdio>
#include <thread>

#include <malloc.h>
#include <sys/prctl.h>

#include "framework/signals.h"
#include "panel/routes.h"

namespace
{
/* Threads come and go with the connections: with a heap for each of them much stays behind. */
constexpr int kHeaps = 2;

int Serve(const PANEL_OPTIONS_S &i_stOptions)
{
    const sigset_t stSignals = BlockSignals({SIGINT, SIGTERM});
    signal(SIGPIPE, SIG_IGN);
    HTTP_LIMITS_S stLimits;
    stLimits.u32Connections = i_stOptions.u32Connections;
    CHttpServer objServer(stLimits);
    if (!i_stOptions.strTlsCertificate.empty()) {
        const std::string strWrong =
            objServer.UseTls(i_stOptions.strTlsCertificate, i_stOptions.strTlsKey);
        if (!strWrong.empty()) {
            fprintf(stderr, "mv3300-panel: %s\n", strWrong.c_str());
            return 1;
        }
    }
    if (!objServer.Open(i_stOptions.strAddress, i_stOptions.u16Port)) {
        fprintf(stderr, "mv3300-panel: cannot listen on %s port %u: %s\n",
                i_stOptions.strAddress.c_str(), i_stOptions.u16Port, strerror(errno));
        return 1;
    }
    CPreview objPreview(i_stOptions.strPreviewFile);
    CState objState(i_stOptions.strStateFile, [&objPreview] { objPreview.Get(); });
    CLive objLive(i_stOptions.u16StreamPort, i_stOptions.u32Viewers);
    const CRoutes objRoutes(i_stOptions, objServer, objState, objPreview, objLive);
    std::thread objListener([&objServer] { objServer.listen_after_bind(); });
    fprintf(stderr, "mv3300-panel: serving on %s://%s:%u, files from %s\n",
            objServer.IsTls() ? "https" : "http", i_stOptions.strAddress.c_str(),
            i_stOptions.u16Port, i_stOptions.strRoot.c_str());
    int s32Signal = 0;
    sigwait(&stSignals, &s32Signal);
    objLive.End();
    objState.End();
    objServer.End();
    objListener.join();
    return 0;
}
} // namespace

int main(int argc, char **argv)
{
    mallopt(M_ARENA_MAX, kHeaps);
    PANEL_OPTIONS_S stOptions;
    const OptionsResult eResult = ReadOptions(argc, argv, stOptions);
    if (eResult != OptionsResult::Run) {
        return eResult == OptionsResult::Done ? 0 : 2;
    }
    return stOptions.bSetPassword ? SetPassword(stOptions.strPasswordFile) : Serve(stOptions);
}

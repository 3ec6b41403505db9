/*
 * What is behind each path.
 */
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "panel/doors.h"
#include "panel/http_server.h"
#include "panel/live.h"
#include "panel/options.h"
#include "panel/preview.h"
#include "panel/settings.h"
#include "panel/state.h"

class CRoutes
{
public:
    /* Adds the handlers to the server; all the others live longer than it. */
    CRoutes(const PANEL_OPTIONS_S &i_stOptions, CHttpServer &io_objServer, CState &io_objState,
            CPreview &io_objPreview, CLive &io_objLive);

private:
    using CRequest = httplib::Request;
    using CResponse = httplib::Response;

    void AddDoors();
    void AddPage();
    void AddPictures();
    void AddFigures();
    void AddChanges();

    /* True if the request is let in; else the answer says why not. */
    Bool LetIn(const CRequest &i_objRequest, CResponse &o_objResponse);
    void Index(const CRequest &i_objRequest, CResponse &o_objResponse);
    void Live(const CRequest &i_objRequest, CResponse &o_objResponse);
    void Snapshot(const CRequest &i_objRequest, CResponse &o_objResponse);
    void Previews(const CRequest &i_objRequest, CResponse &o_objResponse);
    void Events(const CRequest &i_objRequest, CResponse &o_objResponse);
    void Sdp(CResponse &o_objResponse);
    void Metrics(CResponse &o_objResponse);
    void Login(const CRequest &i_objRequest, CResponse &o_objResponse);
    void PutSettings(const CRequest &i_objRequest, CResponse &o_objResponse);
    void SendFile(const CRequest &i_objRequest, CResponse &o_objResponse, const char *i_pName,
                  const char *i_pType);
    Bool HasSession(const CRequest &i_objRequest);
    std::string StateText(const SEEN_STATE_S &i_stState);

    const PANEL_OPTIONS_S m_stOptions;
    CHttpServer &m_objServer;
    CState &m_objState;
    CPreview &m_objPreview;
    CLive &m_objLive;
    CDoors m_objDoors;
    CSettings m_objSettings;
    std::vector<std::string> m_objNames; /* the panel may be called by */
    std::mutex m_objSdpMutex;
    std::atomic<UInt64> m_u64Requests{0};
    std::atomic<UInt32> m_u32Listeners{0}; /* of events */
};

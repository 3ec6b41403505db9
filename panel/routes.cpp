/*
 * What is behind each path: who is let in, the page, and the figures.
 */
#include "panel/routes.h"

#include "panel/answers.h"
#include "panel/metrics.h"
#include "panel/page.h"
#include "tools/session.h"

using nlohmann::json;

namespace
{
constexpr const char *kCookie = "mv3300_session";
constexpr std::size_t kMostFile = 1024 * 1024;
constexpr UInt32 kMostListeners = 48;
constexpr std::chrono::seconds kHeartbeat(10);

const char *const kPolicy = "default-src 'none'; script-src 'self'; style-src 'self'; "
                            "img-src 'self' data:; media-src 'self' blob:; connect-src 'self'; "
                            "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
} // namespace

CRoutes::CRoutes(const PANEL_OPTIONS_S &i_stOptions, CHttpServer &io_objServer, CState &io_objState,
                 CPreview &io_objPreview, CLive &io_objLive)
    : m_stOptions(i_stOptions), m_objServer(io_objServer), m_objState(io_objState),
      m_objPreview(io_objPreview), m_objLive(io_objLive), m_objDoors(i_stOptions.strPasswordFile),
      m_objSettings(i_stOptions.strParamFile), m_objNames(OwnNames())
{
    m_objNames.insert(m_objNames.end(), i_stOptions.objHosts.begin(), i_stOptions.objHosts.end());
    AddDoors();
    AddPage();
    AddPictures();
    AddFigures();
    AddChanges();
}

void CRoutes::AddDoors()
{
    using httplib::Server;
    m_objServer.set_default_headers({{"Content-Security-Policy", kPolicy},
                                     {"X-Content-Type-Options", "nosniff"},
                                     {"X-Frame-Options", "DENY"},
                                     {"Referrer-Policy", "no-referrer"},
                                     {"Cross-Origin-Resource-Policy", "same-origin"}});
    m_objServer.set_pre_routing_handler([this](const CRequest &req, CResponse &res) {
        m_u64Requests++;
        return LetIn(req, res) ? Server::HandlerResponse::Unhandled
                               : Server::HandlerResponse::Handled;
    });
    m_objServer.set_error_handler([](const CRequest &, CResponse &res) {
        if (res.body.empty()) {
            Refuse(res, res.status, "There is nothing of that name here.");
        }
    });
    m_objServer.set_exception_handler([](const CRequest &, CResponse &res, std::exception_ptr) {
        Refuse(res, 500, "The panel failed to answer.");
    });
}

Bool CRoutes::LetIn(const CRequest &i_objRequest, CResponse &o_objResponse)
{
    const std::string strHost = i_objRequest.get_header_value("Host");
    if (i_objRequest.get_header_value_count("Host") != 1) {
        Refuse(o_objResponse, 400, "A request names its host once.");
        return false;
    }
    if (!IsOwnHost(strHost, m_objNames)) {
        Refuse(o_objResponse, 421, "The panel does not answer to that name; see --host.");
        return false;
    }
    const bool bForeign = (i_objRequest.has_header("Origin") &&
                           !IsOwnOrigin(i_objRequest.get_header_value("Origin"), strHost)) ||
                          (i_objRequest.method != "GET" && i_objRequest.method != "HEAD" &&
                           i_objRequest.get_header_value("Sec-Fetch-Site") == "cross-site");
    if (bForeign) {
        Refuse(o_objResponse, 403, "Requests of other sites are not answered.");
        return false;
    }
    if (i_objRequest.has_header("Content-Type") &&
        i_objRequest.get_header_value("Content-Type").find("application/json") != 0) {
        Refuse(o_objResponse, 415, "The body must be JSON.");
        return false;
    }
    return true;
}

Bool CRoutes::HasSession(const CRequest &i_objRequest)
{
    const std::string strToken = FindCookie(i_objRequest.get_header_value("Cookie"), kCookie);
    return !strToken.empty() && m_objDoors.IsSession(strToken, std::chrono::steady_clock::now());
}

void CRoutes::SendFile(const CRequest &i_objRequest, CResponse &o_objResponse, const char *i_pName,
                       const char *i_pType)
{
    const std::optional<std::string> objFile =
        ReadWhole(m_stOptions.strRoot + "/" + i_pName, kMostFile);
    if (!objFile) {
        Refuse(o_objResponse, 404,
               std::string("The page's files are not where they belong: ") + m_stOptions.strRoot);
        return;
    }
    SendTagged(i_objRequest, o_objResponse, *objFile, i_pType);
}

void CRoutes::AddPage()
{
    m_objServer.Get("/", [this](const CRequest &req, CResponse &res) { Index(req, res); });
    m_objServer.Get("/panel.css", [this](const CRequest &req, CResponse &res) {
        SendFile(req, res, "panel.css", "text/css; charset=utf-8");
    });
    m_objServer.Get("/panel.js", [this](const CRequest &req, CResponse &res) {
        SendFile(req, res, "panel.js", "text/javascript; charset=utf-8");
    });
}

void CRoutes::Index(const CRequest &i_objRequest, CResponse &o_objResponse)
{
    const std::optional<std::string> objFile =
        ReadWhole(m_stOptions.strRoot + "/index.html", kMostFile);
    if (!objFile) {
        Refuse(o_objResponse, 500,
               "The page's files are not where they belong (see --root): " + m_stOptions.strRoot);
        return;
    }
    const std::string strOrigin = std::string(m_objServer.IsTls() ? "https://" : "http://") +
                                  i_objRequest.get_header_value("Host");
    SendTagged(i_objRequest, o_objResponse, FillPage(*objFile, *m_objState.Get(), strOrigin),
               "text/html; charset=utf-8");
}

std::string CRoutes::StateText(const SEEN_STATE_S &i_stState)
{
    json objState = i_stState.objJson;
    /* The guard seldom asks for the settings. The panel's answer of this run of the daemon holds
     * where it is the newer one. */
    const json objKnown = m_objSettings.Known();
    const std::optional<double> objStart = i_stState.Number("/daemon/uptime");
    if (!objKnown.is_null() && objStart &&
        objKnown["time"] >
            i_stState.Number("/settings/time").value_or(*i_stState.Number("/time") - *objStart)) {
        objState["settings"] = objKnown;
    }
    objState["panel"] = {{"version", MV3300_VERSION},
                         {"viewers", m_objLive.Viewers()},
                         {"most_viewers", m_objLive.MostViewers()},
                         {"trouble", m_objLive.Trouble()}};
    return objState.dump(-1, ' ', false, json::error_handler_t::replace);
}

void CRoutes::AddFigures()
{
    m_objServer.Get("/api/state", [this](const CRequest &, CResponse &res) {
        SendFresh(res, StateText(*m_objState.Get()), "application/json");
    });
    m_objServer.Get("/api/history", [this](const CRequest &, CResponse &res) {
        SendFresh(res, m_objState.History().dump(), "application/json");
    });
    m_objServer.Get("/api/events",
                    [this](const CRequest &req, CResponse &res) { Events(req, res); });
    m_objServer.Get("/metrics", [this](const CRequest &, CResponse &res) { Metrics(res); });
    m_objServer.Get("/stream.sdp", [this](const CRequest &, CResponse &res) { Sdp(res); });
    /* Whether the panel works; the box's condition is for the reader, not for the status. */
    m_objServer.Get("/healthz", [this](const CRequest &, CResponse &res) {
        SendFresh(res, "ok\n" + m_objState.Get()->Condition() + "\n", "text/plain");
    });
}

void CRoutes::Events(const CRequest &i_objRequest, CResponse &o_objResponse)
{
    auto pSlot = TakeSlot(m_u32Listeners, kMostListeners);
    if (!pSlot) {
        Refuse(o_objResponse, 503, "Too many listen to events already.");
        return;
    }
    auto pVersion = std::make_shared<UInt64>(0);
    SendStream(i_objRequest, o_objResponse, "text/event-stream",
               [this, pSlot, pVersion](httplib::DataSink &sink) {
                   const auto pState = m_objState.Wait(*pVersion, kHeartbeat);
                   /* A comment shows that the line still holds. */
                   std::string strEvent = ":\n\n";
                   if (pState->u64Version != *pVersion) {
                       *pVersion = pState->u64Version;
                       strEvent = "id: " + std::to_string(*pVersion) +
                                  "\nevent: state\ndata: " + StateText(*pState) + "\n\n";
                   }
                   return !m_objServer.IsEnding() && sink.write(strEvent.data(), strEvent.size());
               });
}

void CRoutes::Metrics(CResponse &o_objResponse)
{
    PANEL_FIGURES_S stFigures;
    stFigures.u32Viewers = m_objLive.Viewers();
    stFigures.u64Viewed = m_objLive.Viewed();
    stFigures.u64Requests = m_u64Requests;
    const auto pPreview = m_objPreview.Get();
    stFigures.f64PreviewTime = pPreview ? pPreview->f64Time : 0;
    SendFresh(o_objResponse, FormatMetrics(*m_objState.Get(), stFigures, m_objLive.Intervals()),
              "text/plain; version=0.0.4; charset=utf-8");
}

void CRoutes::Sdp(CResponse &o_objResponse)
{
    /* One at a time: a receiver's name that does not resolve takes seconds and a thread. */
    const std::lock_guard objLock(m_objSdpMutex);
    const TARGET_S stTarget = FindTarget(m_stOptions.strParamFile, "", nullptr);
    if (!stTarget.strProblem.empty()) {
        Refuse(o_objResponse, 503, "Where the stream goes is not known: " + stTarget.strProblem);
        return;
    }
    o_objResponse.set_header("Content-Disposition", "inline; filename=\"stream.sdp\"");
    SendFresh(o_objResponse, SdpText(MakeSession(stTarget, m_objState.Get()->objJson)),
              "application/sdp");
}

void CRoutes::AddChanges()
{
    m_objServer.Get("/api/settings", [this](const CRequest &req, CResponse &res) {
        CSettings::REPLY_S stReply = m_objSettings.Get();
        stReply.objJson["password_set"] = m_objDoors.HasPassword() == true;
        stReply.objJson["session"] = HasSession(req) == true;
        res.status = stReply.s32Status;
        SendFresh(res, stReply.objJson.dump(), "application/json");
    });
    m_objServer.Put("/api/settings",
                    [this](const CRequest &req, CResponse &res) { PutSettings(req, res); });
    m_objServer.Post("/api/login",
                     [this](const CRequest &req, CResponse &res) { Login(req, res); });
    m_objServer.Post("/api/logout", [this](const CRequest &req, CResponse &res) {
        m_objDoors.Logout(FindCookie(req.get_header_value("Cookie"), kCookie));
        res.set_header("Set-Cookie", std::string(kCookie) + "=; Path=/; Max-Age=0; HttpOnly");
        res.status = 204;
    });
}

void CRoutes::Login(const CRequest &i_objRequest, CResponse &o_objResponse)
{
    const json objBody = json::parse(i_objRequest.body, nullptr, false);
    if (!objBody.is_object() || !objBody.contains("password") || !objBody["password"].is_string()) {
        Refuse(o_objResponse, 400, "The body must be {\"password\": \"...\"}.");
        return;
    }
    std::string strToken;
    UInt32 u32Wait = 0;
    switch (m_objDoors.Login(i_objRequest.remote_addr, objBody["password"].get<std::string>(),
                             std::chrono::steady_clock::now(), strToken, u32Wait)) {
    case LoginResult::Welcome:
        o_objResponse.set_header("Set-Cookie", std::string(kCookie) + "=" + strToken +
                                                   "; Path=/; HttpOnly; SameSite=Strict" +
                                                   (m_objServer.IsTls() ? "; Secure" : ""));
        o_objResponse.status = 204;
        break;
    case LoginResult::TooMany:
        o_objResponse.set_header("Retry-After", std::to_string(u32Wait));
        Refuse(o_objResponse, 429,
               "Too many wrong passwords: wait " + std::to_string(u32Wait) + " s.");
        break;
    case LoginResult::NoPassword:
        Refuse(o_objResponse, 401,
               "No password is set on the box (mv3300-panel --set-password), "
               "so nothing can be changed from here.");
        break;
    default:
        Refuse(o_objResponse, 401, "The password is wrong.");
    }
}

void CRoutes::PutSettings(const CRequest &i_objRequest, CResponse &o_objResponse)
{
    if (!HasSession(i_objRequest)) {
        Refuse(o_objResponse, 401,
               m_objDoors.HasPassword()
                   ? "Changing needs the password: log in first."
                   : "No password is set on the box (mv3300-panel --set-password), so nothing can "
                     "be changed from here.");
        return;
    }
    CSettings::REPLY_S stReply =
        m_objSettings.Put(i_objRequest.body, i_objRequest.get_param_value("save") == "1");
    o_objResponse.status = stReply.s32Status;
    SendFresh(o_objResponse, stReply.objJson.dump(-1, ' ', false, json::error_handler_t::replace),
              "application/json");
}

/*
 * What is behind each path: the pictures.
 */
#include <ctime>

#include "panel/answers.h"
#include "panel/routes.h"

namespace
{
/* Longer than a restart of the stream takes to bring its first key picture. */
constexpr std::chrono::seconds kJoinTime(10);
constexpr std::chrono::milliseconds kReadTime(1000);
constexpr std::chrono::milliseconds kPreviewPause(50);
constexpr const char *kBoundary = "mv3300-preview";
/* A preview that nobody replaced for so long tells nothing of the present. */
constexpr double kOldPreview = 15;

double Now()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string HttpDate(double i_f64Time)
{
    const auto s64Time = static_cast<time_t>(i_f64Time);
    tm stTime = {};
    char szDate[64];
    gmtime_r(&s64Time, &stTime);
    strftime(szDate, sizeof(szDate), "%a, %d %b %Y %H:%M:%S GMT", &stTime);
    return szDate;
}

std::string Title(const std::string &i_strCondition)
{
    std::string strTitle = i_strCondition;
    for (char &s8Char : strTitle) {
        s8Char = s8Char == '-' ? ' ' : static_cast<char>(toupper(s8Char));
    }
    return strTitle;
}

/* Whether there can be a current picture in that condition at all. */
bool MayHavePicture(const std::string &i_strCondition)
{
    for (const char *pNone : {"no-daemon", "input-unknown", "no-signal", "interlaced", "failed"}) {
        if (i_strCondition == pNone) {
            return false;
        }
    }
    return true;
}
} // namespace

void CRoutes::AddPictures()
{
    m_objServer.Get("/live.mp4", [this](const CRequest &req, CResponse &res) { Live(req, res); });
    m_objServer.Get("/snapshot.jpeg",
                    [this](const CRequest &req, CResponse &res) { Snapshot(req, res); });
    m_objServer.Get("/preview.mjpeg",
                    [this](const CRequest &req, CResponse &res) { Previews(req, res); });
}

void CRoutes::Live(const CRequest &i_objRequest, CResponse &o_objResponse)
{
    std::shared_ptr<CLive::CViewer> pViewer = m_objLive.Enter(true);
    if (!pViewer) {
        o_objResponse.set_header("Retry-After", "10");
        Refuse(o_objResponse, 503, "As many as may watch are watching already.");
        return;
    }
    auto pPlace = std::make_shared<CFragments::PLACE_S>();
    auto pBytes = std::make_shared<std::string>();
    std::string strCodec;
    CFragments &objFragments = m_objLive.Fragments();
    if (!objFragments.Join(kJoinTime, *pPlace, *pBytes, strCodec)) {
        const std::string strTrouble = m_objLive.Trouble();
        o_objResponse.set_header("Retry-After", "1");
        Refuse(o_objResponse, 503,
               strTrouble.empty()
                   ? "No stream arrives at the panel: " + m_objState.Get()->Sentence()
                   : "There is no live picture: " + strTrouble);
        return;
    }
    SendStream(i_objRequest, o_objResponse, "video/mp4; codecs=\"" + strCodec + "\"",
               [&objFragments, pViewer, pPlace, pBytes](httplib::DataSink &sink) {
                   if (!pBytes->empty() && !sink.write(pBytes->data(), pBytes->size())) {
                       return false;
                   }
                   pBytes->clear();
                   if (objFragments.Read(*pPlace, kReadTime, *pBytes) ==
                       CFragments::WaitResult::Over) {
                       sink.done();
                   }
                   return true;
               });
}

void CRoutes::Snapshot(const CRequest &, CResponse &o_objResponse)
{
    const auto pState = m_objState.Get();
    const auto pPicture = m_objPreview.Get();
    const std::string strCondition = pState->Condition();
    const double f64Age = pPicture ? std::max(Now() - pPicture->f64Time, 0.0) : 0;
    /* Without the guard only the picture's age tells whether it is one of now. */
    if (!pPicture || !MayHavePicture(strCondition) ||
        (strCondition == "no-guard" && f64Age > kOldPreview)) {
        o_objResponse.status = 503;
        SendFresh(o_objResponse, DrawWords(Title(strCondition), pState->Sentence()), "image/jpeg");
        return;
    }
    o_objResponse.set_header("Age", std::to_string(static_cast<UInt64>(f64Age)));
    o_objResponse.set_header("Last-Modified", HttpDate(pPicture->f64Time));
    SendFresh(o_objResponse, pPicture->strJpeg, "image/jpeg");
}

void CRoutes::Previews(const CRequest &i_objRequest, CResponse &o_objResponse)
{
    std::shared_ptr<CLive::CViewer> pViewer = m_objLive.Enter(false);
    if (!pViewer) {
        o_objResponse.set_header("Retry-After", "10");
        Refuse(o_objResponse, 503, "As many as may watch are watching already.");
        return;
    }
    auto pVersion = std::make_shared<UInt64>(0);
    SendStream(i_objRequest, o_objResponse,
               std::string("multipart/x-mixed-replace; boundary=") + kBoundary,
               [this, pViewer, pVersion](httplib::DataSink &sink) {
                   const auto pPicture = m_objPreview.Get();
                   if (!pPicture || pPicture->u64Version == *pVersion) {
                       std::this_thread::sleep_for(kPreviewPause);
                       return !m_objServer.IsEnding() && sink.is_writable();
                   }
                   *pVersion = pPicture->u64Version;
                   const std::string strPart =
                       std::string("--") + kBoundary + "\r\nContent-Type: image/jpeg\r\n" +
                       "Content-Length: " + std::to_string(pPicture->strJpeg.size()) + "\r\n\r\n" +
                       pPicture->strJpeg + "\r\n";
                   return sink.write(strPart.data(), strPart.size());
               });
}

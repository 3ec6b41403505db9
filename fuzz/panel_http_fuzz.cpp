/*
 * The panel's paths on arbitrary bytes of a connection, with every handler behind them. Where the
 * input says SESSION, a session's token stands. No handler throws, nothing is shown to who does not
 * name the host, and the connection comes to its end. No question to the daemon leaves the process.
 */
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>

#include <crypt.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include "framework/assertion.h"
#include "panel/routes.h"

namespace
{
constexpr const char *kLogin =
    "POST /api/login HTTP/1.1\r\nHost: localhost\r\nContent-Type: "
    "application/json\r\nContent-Length: 17\r\n\r\n{\"password\": \"x\"}";
constexpr const char *kPlaceholder = "SESSION";
constexpr std::size_t kPiece = 61; /* what comes at a time: requests are cut anywhere */

/* A client that sends its bytes, reads the answers, and goes when a body without an end begins. */
class CScript : public CTransport
{
public:
    explicit CScript(std::string i_strBytes) : m_strBytes(std::move(i_strBytes)) {}

    ssize_t Read(char *o_pData, std::size_t i_u64Size, CTime) override
    {
        const std::size_t u64Size = m_strBytes.copy(o_pData, std::min(i_u64Size, kPiece), m_u64Pos);
        m_u64Pos += u64Size;
        return static_cast<ssize_t>(u64Size);
    }

    ssize_t Write(const char *i_pData, std::size_t i_u64Size, CTime) override
    {
        if (m_bGone) {
            return -1;
        }
        const std::string strData(i_pData, i_u64Size);
        m_bGone = strData.compare(0, 5, "HTTP/") == 0 &&
                  strData.find("\r\nContent-Length: ") == std::string::npos;
        m_strAnswers += strData;
        return static_cast<ssize_t>(i_u64Size);
    }

    std::string GetRemoteAddress() const override
    {
        /* Another one each time, or all would wait for the wrong passwords of the first. */
        static UInt32 s_u32Count;
        return "192.0.2." + std::to_string(s_u32Count++ % 256);
    }

    const std::string &Answers() const { return m_strAnswers; }

private:
    const std::string m_strBytes;
    std::size_t m_u64Pos = 0;
    std::string m_strAnswers;
    bool m_bGone = false;
};

/* The panel as it is on a box that streams, but for the threads: those have ended. */
class CPanel
{
public:
    CPanel()
    {
        m_objLive.End();
        m_objState.End();
        assert(!m_stOptions.strRoot.empty());
    }

    std::string Exchange(const std::string &i_strBytes)
    {
        CScript objScript(i_strBytes);
        CONNECTION_S stConnection;
        m_objServer.Serve(objScript, stConnection);
        assert(!stConnection.bBusy);
        return objScript.Answers();
    }

private:
    static std::string Write(const std::string &i_strName, const std::string &i_strText)
    {
        const std::string strPath =
            "/dev/shm/panel_http_fuzz." + std::to_string(getpid()) + i_strName;
        std::ofstream(strPath, std::ios::binary) << i_strText;
        return strPath;
    }

    static PANEL_OPTIONS_S Options()
    {
        PANEL_OPTIONS_S stOptions;
        stOptions.strRoot = FindRoot();
        crypt_data stData = {};
        /* A cheap one: each session costs a trial. */
        stOptions.strPasswordFile =
            Write(".password", crypt_r("x", "$5$rounds=1000$saltsaltsalt$", &stData));
        stOptions.strPreviewFile = Write(".jpeg", "\xff\xd8picture\xff\xd9");
        stOptions.strStateFile = Write(
            ".state", R"({"schema": 1, "condition": "streaming", "text": "It runs.", "time": 9e9,
                          "stream": {"sps": "Z0LAHw==", "pps": "aM48gA==", "payload_type": 96}})");
        stOptions.strParamFile = "/nowhere/param.xml";
        stOptions.u16StreamPort = 0;
        return stOptions;
    }

    static void RemoveAll(const PANEL_OPTIONS_S &i_stOptions)
    {
        for (const std::string &strFile :
             {i_stOptions.strPasswordFile, i_stOptions.strPreviewFile, i_stOptions.strStateFile}) {
            unlink(strFile.c_str());
        }
    }

    const PANEL_OPTIONS_S m_stOptions = Options();
    CHttpServer m_objServer{HTTP_LIMITS_S()};
    CPreview m_objPreview{m_stOptions.strPreviewFile};
    CState m_objState{m_stOptions.strStateFile, [] {}};
    CLive m_objLive{m_stOptions.u16StreamPort, m_stOptions.u32Viewers};
    const CRoutes m_objRoutes{m_stOptions, m_objServer, m_objState, m_objPreview, m_objLive};

public:
    ~CPanel() { RemoveAll(m_stOptions); }
};

std::string Token(CPanel &io_objPanel)
{
    const std::string strAnswer = io_objPanel.Exchange(kLogin);
    const std::string strBefore = "Set-Cookie: mv3300_session=";
    const std::size_t u64Pos = strAnswer.find(strBefore);
    assert(u64Pos != std::string::npos);
    const std::size_t u64Begin = u64Pos + strBefore.size();
    return strAnswer.substr(u64Begin, strAnswer.find(';', u64Begin) - u64Begin);
}
} // namespace

/* The box's control channel: the daemon is not there. */
extern "C" ssize_t __wrap_send(int, const void *, std::size_t, int)
{
    errno = ECONNREFUSED;
    return -1;
}

/* GLib makes its first table of names while it is loaded, and drops it on purpose when it grows.
 * The loader is found below a GLib without frame pointers by the slow unwinder alone. */
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:ld-linux";
}

extern "C" const char *__asan_default_options()
{
    return "fast_unwind_on_malloc=0:malloc_context_size=8";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *i_pData, std::size_t i_u64Size)
{
    static CPanel s_objPanel;
    std::string strInput(reinterpret_cast<const char *>(i_pData), i_u64Size);
    const std::size_t u64Pos = strInput.find(kPlaceholder);
    if (u64Pos != std::string::npos) {
        strInput.replace(u64Pos, strlen(kPlaceholder), Token(s_objPanel));
    }
    const std::string strAnswers = s_objPanel.Exchange(strInput);
    assert(strAnswers.empty() || strAnswers.compare(0, 9, "HTTP/1.1 ") == 0);
    assert(strAnswers.find("HTTP/1.1 500 ") == std::string::npos);
    if (strcasestr(strInput.c_str(), "host:") == nullptr && strInput.find('\0') > i_u64Size) {
        assert(strAnswers.compare(0, 12, "HTTP/1.1 200") != 0);
    }
    return 0;
}

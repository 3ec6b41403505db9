/*
 * What the panel is told when it starts.
 */
#include "panel/options.h"

#include <charconv>
#include <filesystem>
#include <iostream>

#include <CLI/CLI.hpp>

namespace
{
constexpr const char *kConfigFile = "/etc/mv3300/panel.conf";

/* "8080", "0.0.0.0:80", "[::]:8080"; empty if it is one, else what is wrong. */
std::string ReadListen(const std::string &i_strText, PANEL_OPTIONS_S &o_stOptions)
{
    const std::size_t u64Colon = i_strText.rfind(':');
    std::string strAddress =
        u64Colon == std::string::npos ? "127.0.0.1" : i_strText.substr(0, u64Colon);
    if (strAddress.size() > 2 && strAddress.front() == '[' && strAddress.back() == ']') {
        strAddress = strAddress.substr(1, strAddress.size() - 2);
    }
    const std::string strPort =
        u64Colon == std::string::npos ? i_strText : i_strText.substr(u64Colon + 1);
    UInt16 u16Port = 0;
    const auto [pEnd, eError] =
        std::from_chars(strPort.data(), strPort.data() + strPort.size(), u16Port);
    if (eError != std::errc() || pEnd != strPort.data() + strPort.size() || strAddress.empty()) {
        return "not an address and a port, such as 127.0.0.1:8080 or [::]:8080: " + i_strText;
    }
    o_stOptions.strAddress = strAddress;
    o_stOptions.u16Port = u16Port;
    return {};
}

void AddDoors(CLI::App &io_objApp, std::string &o_strListen, PANEL_OPTIONS_S &o_stOptions)
{
    io_objApp.add_option("--listen", o_strListen, "address and port to listen on (127.0.0.1:8080)")
        ->type_name("ADDRESS:PORT");
    auto *pCertificate =
        io_objApp.add_option("--tls-cert", o_stOptions.strTlsCertificate,
                             "certificate with its chain (PEM): the panel speaks https");
    auto *pKey = io_objApp.add_option("--tls-key", o_stOptions.strTlsKey, "its key (PEM)");
    pCertificate->needs(pKey)->type_name("FILE");
    pKey->needs(pCertificate)->type_name("FILE");
    io_objApp
        .add_option("--host", o_stOptions.objHosts,
                    "a name the panel may be called by, besides addresses, localhost and this "
                    "machine's name; may be repeated")
        ->type_name("NAME");
    io_objApp
        .add_option("--password-file", o_stOptions.strPasswordFile,
                    "where the hash of the password is kept")
        ->type_name("FILE")
        ->capture_default_str();
    io_objApp
        .add_option("--viewers", o_stOptions.u32Viewers, "how many may watch at the same time")
        ->check(CLI::Range(1, 256))
        ->capture_default_str();
    io_objApp
        .add_option("--connections", o_stOptions.u32Connections,
                    "how many connections are kept; idle ones give way to new ones")
        ->check(CLI::Range(16, 800))
        ->capture_default_str();
}

void AddFiles(CLI::App &io_objApp, PANEL_OPTIONS_S &o_stOptions)
{
    io_objApp.add_option("--root", o_stOptions.strRoot, "folder of the page's files")
        ->type_name("FOLDER");
    io_objApp.add_option("--state", o_stOptions.strStateFile, "what the guard publishes")
        ->type_name("FILE")
        ->capture_default_str();
    io_objApp.add_option("--preview", o_stOptions.strPreviewFile, "the preview picture")
        ->type_name("FILE")
        ->capture_default_str();
    io_objApp
        .add_option("--param", o_stOptions.strParamFile,
                    "the daemon's parameter file: says where the stream goes, and settings are "
                    "saved into it")
        ->type_name("FILE")
        ->capture_default_str();
    io_objApp
        .add_option("--stream-port", o_stOptions.u16StreamPort,
                    "port of 127.0.0.1 on which the local copy of the stream comes in")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
}
} // namespace

OptionsResult ReadOptions(int i_s32Argc, const char *const *i_pArgv, PANEL_OPTIONS_S &o_stOptions)
{
    CLI::App objApp("The panel of the HDMI video encoder: the live picture, the state and the "
                    "settings in a browser, and figures for monitoring.",
                    "mv3300-panel");
    std::string strListen;
    AddDoors(objApp, strListen, o_stOptions);
    AddFiles(objApp, o_stOptions);
    objApp.add_flag("--set-password", o_stOptions.bSetPassword,
                    "ask for the password of the settings (or read it from the standard input), "
                    "store its hash and end");
    objApp.set_config("--config", kConfigFile, "configuration file, with the names of the options")
        ->type_name("FILE");
    objApp.set_version_flag("--version", MV3300_VERSION);
    objApp.allow_config_extras(CLI::config_extras_mode::error);
    try {
        objApp.parse(i_s32Argc, i_pArgv);
    } catch (const CLI::ParseError &objError) {
        return objApp.exit(objError) == 0 ? OptionsResult::Done : OptionsResult::Wrong;
    }
    const std::string strWrong =
        strListen.empty() ? std::string() : ReadListen(strListen, o_stOptions);
    if (!strWrong.empty()) {
        std::cerr << "mv3300-panel: --listen: " << strWrong << '\n';
        return OptionsResult::Wrong;
    }
    if (o_stOptions.strRoot.empty()) {
        o_stOptions.strRoot = FindRoot();
    }
    return OptionsResult::Run;
}

std::string FindRoot()
{
    std::error_code objError;
    const std::filesystem::path objProgram =
        std::filesystem::read_symlink("/proc/self/exe", objError).parent_path();
    for (const char *pPlace :
         {"../share/mv3300-panel", "../panel/www", "../../panel/www", "../../../panel/www"}) {
        const std::filesystem::path objPlace = (objProgram / pPlace).lexically_normal();
        if (std::filesystem::exists(objPlace / "index.html", objError)) {
            return objPlace;
        }
    }
    return {};
}

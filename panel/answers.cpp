/*
 * The forms that answers take.
 */
#include "panel/answers.h"

#include <nlohmann/json.hpp>

void Refuse(httplib::Response &o_objResponse, int i_s32Status, const std::string &i_strWhy)
{
    const nlohmann::json objBody = {{"error", i_strWhy}};
    o_objResponse.status = i_s32Status;
    SendFresh(o_objResponse,
              objBody.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n",
              "application/json");
}

void SendFresh(httplib::Response &o_objResponse, const std::string &i_strBody,
               const std::string &i_strType)
{
    o_objResponse.set_header("Cache-Control", "no-store");
    o_objResponse.set_content(i_strBody, i_strType);
}

void SendTagged(const httplib::Request &i_objRequest, httplib::Response &o_objResponse,
                const std::string &i_strBody, const std::string &i_strType)
{
    /* FNV-1a: tells versions apart, guards nothing. */
    UInt64 u64Hash = 14695981039346656037U;
    for (const char s8Char : i_strBody) {
        u64Hash = (u64Hash ^ static_cast<UInt8>(s8Char)) * 1099511628211U;
    }
    const std::string strTag = "\"" + std::to_string(u64Hash) + "\"";
    o_objResponse.set_header("ETag", strTag);
    o_objResponse.set_header("Cache-Control", "no-cache");
    if (i_objRequest.get_header_value("If-None-Match") == strTag) {
        o_objResponse.status = 304;
        return;
    }
    o_objResponse.set_content(i_strBody, i_strType);
}

void SendStream(const httplib::Request &i_objRequest, httplib::Response &o_objResponse,
                const std::string &i_strType, std::function<Bool(httplib::DataSink &)> i_pWrite)
{
    o_objResponse.set_header("Cache-Control", "no-store");
    const auto pProvider = [i_pWrite = std::move(i_pWrite)](size_t, httplib::DataSink &sink) {
        return i_pWrite(sink);
    };
    /* HTTP/1.0 has no chunks; its body ends with the connection. */
    if (i_objRequest.version == "HTTP/1.0") {
        o_objResponse.set_content_provider(i_strType, pProvider);
    } else {
        o_objResponse.set_chunked_content_provider(i_strType, pProvider);
    }
}

std::shared_ptr<void> TakeSlot(std::atomic<UInt32> &io_u32Taken, UInt32 i_u32Most)
{
    if (io_u32Taken.fetch_add(1) >= i_u32Most) {
        io_u32Taken--;
        return nullptr;
    }
    return {&io_u32Taken, [](std::atomic<UInt32> *pTaken) { (*pTaken)--; }};
}

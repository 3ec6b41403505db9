/*
 * Collects the lines that the code under test logs, as they come.
 *
 * While one lives it is the only appender of the category and every level is on. Lines hold the
 * priority, the message and the thread, for example
 * "INFO multicast ip : 234.29.78.95  --[...] @gst-h264".
 */
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <log4cpp/LayoutAppender.hh>

class CLogCapture
{
public:
    /* i_pOnLine is called in the thread that logs, by one thread at a time. */
    explicit CLogCapture(std::function<void()> i_pOnLine = nullptr);
    ~CLogCapture();
    CLogCapture(const CLogCapture &) = delete;
    CLogCapture &operator=(const CLogCapture &) = delete;

    std::vector<std::string> Lines() const;
    /* How many lines contain the text. */
    int Count(const std::string &i_strText) const;
    bool Has(const std::string &i_strText) const { return Count(i_strText) > 0; }
    /* Waits until at least i_s32Count lines contain the text; false after the limit. */
    bool WaitFor(const std::string &i_strText, int i_s32Count = 1,
                 std::chrono::milliseconds i_objLimit = std::chrono::seconds(20)) const;
    void Clear();

private:
    class CAppender;
    CAppender *m_pAppender; /* owned by the category */
};

#include "tests/support/log_capture.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include <log4cpp/Category.hh>
#include <sys/prctl.h>

class CLogCapture::CAppender : public log4cpp::AppenderSkeleton
{
public:
    explicit CAppender(std::function<void()> i_pOnLine)
        : log4cpp::AppenderSkeleton("capture"), m_pOnLine(std::move(i_pOnLine))
    {
    }
    void close() override {}
    bool requiresLayout() const override { return false; }
    void setLayout(log4cpp::Layout *) override {}
    /* With the mutex held. */
    int Count(const std::string &i_strText) const
    {
        return static_cast<int>(
            std::count_if(m_strLines.begin(), m_strLines.end(), [&](const std::string &strLine) {
                return strLine.find(i_strText) != std::string::npos;
            }));
    }

    mutable std::mutex m_objMutex;
    mutable std::condition_variable m_objCond;
    std::vector<std::string> m_strLines;
    std::function<void()> m_pOnLine;

protected:
    void _append(const log4cpp::LoggingEvent &i_objEvent) override
    {
        if (m_pOnLine) {
            m_pOnLine();
        }
        char szThread[16] = "";
        prctl(PR_GET_NAME, szThread);
        std::lock_guard objLock(m_objMutex);
        m_strLines.push_back(log4cpp::Priority::getPriorityName(i_objEvent.priority) + " " +
                             i_objEvent.message + " @" + szThread);
        m_objCond.notify_all();
    }
};

CLogCapture::CLogCapture(std::function<void()> i_pOnLine)
    : m_pAppender(new CAppender(std::move(i_pOnLine)))
{
    log4cpp::Category &objCategory = log4cpp::Category::getInstance("CATEGORY");
    objCategory.removeAllAppenders();
    objCategory.setAdditivity(false);
    objCategory.setPriority(log4cpp::Priority::DEBUG);
    objCategory.addAppender(m_pAppender);
}

CLogCapture::~CLogCapture()
{
    log4cpp::Category::getInstance("CATEGORY").removeAllAppenders();
}

std::vector<std::string> CLogCapture::Lines() const
{
    std::lock_guard objLock(m_pAppender->m_objMutex);
    return m_pAppender->m_strLines;
}

int CLogCapture::Count(const std::string &i_strText) const
{
    std::lock_guard objLock(m_pAppender->m_objMutex);
    return m_pAppender->Count(i_strText);
}

bool CLogCapture::WaitFor(const std::string &i_strText, int i_s32Count,
                          std::chrono::milliseconds i_objLimit) const
{
    std::unique_lock objLock(m_pAppender->m_objMutex);
    return m_pAppender->m_objCond.wait_for(
        objLock, i_objLimit, [&] { return m_pAppender->Count(i_strText) >= i_s32Count; });
}

void CLogCapture::Clear()
{
    std::lock_guard objLock(m_pAppender->m_objMutex);
    m_pAppender->m_strLines.clear();
}

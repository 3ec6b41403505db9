/*
 * Logging: the category is looked up once; log4cpp keeps it for the life of the process.
 */
#include "common/bus/log.h"

#include <cstdarg>

#include <log4cpp/Category.hh>

namespace
{
log4cpp::Category &LogCategory()
{
    static log4cpp::Category &objCategory = log4cpp::Category::getInstance("CATEGORY");
    return objCategory;
}
} // namespace

bool LogEnabled(log4cpp::Priority::Value i_s32Level)
{
    return LogCategory().isPriorityEnabled(i_s32Level);
}

void LogWrite(log4cpp::Priority::Value i_s32Level, const char *i_pFormat, ...)
{
    va_list stArgs;
    va_start(stArgs, i_pFormat);
    LogCategory().logva(i_s32Level, i_pFormat, stArgs);
    va_end(stArgs);
}

/*
 * Logging: one macro per level over the single log4cpp category "CATEGORY".
 *
 * Each macro appends " --[file:line]" of its call, checks its arguments against the format at
 * compile time, and formats nothing when the level is switched off. Formats stay in one piece in
 * the source, so that a line seen in a log can be searched for. May be used from any thread.
 */
#pragma once

#include <log4cpp/Priority.hh>

/* True when the category's priority lets the level through. */
bool LogEnabled(log4cpp::Priority::Value i_s32Level);
void LogWrite(log4cpp::Priority::Value i_s32Level, const char *i_pFormat, ...)
    __attribute__((format(printf, 2, 3)));

#define LOG_AT(level, format, ...)                                                                 \
    do {                                                                                           \
        if (LogEnabled(level)) {                                                                   \
            LogWrite(level, format " --[%s:%u]" __VA_OPT__(, ) __VA_ARGS__, __FILE_NAME__,         \
                     static_cast<unsigned>(__LINE__));                                             \
        }                                                                                          \
    } while (false)

#define LOG_ERROR(format, ...) LOG_AT(log4cpp::Priority::ERROR, format, __VA_ARGS__)
#define LOG_WARN(format, ...) LOG_AT(log4cpp::Priority::WARN, format, __VA_ARGS__)
#define LOG_INFO(format, ...) LOG_AT(log4cpp::Priority::INFO, format, __VA_ARGS__)
#define LOG_DEBUG(format, ...) LOG_AT(log4cpp::Priority::DEBUG, format, __VA_ARGS__)

/* Logs at INFO "thread info [name:kernel thread id]" for the calling thread. */
#define LOG_THREAD_INFO(name) LOG_INFO("thread info [%s:%u]", name, static_cast<unsigned>(gettid()))

/* --- Offered: the daemon uses nothing of what follows. --------------------------------------- */

#define LOG_NOTICE(format, ...) LOG_AT(log4cpp::Priority::NOTICE, format, __VA_ARGS__)

/*
 * Where the log goes: the log configuration, and a place for the lines where it names none.
 *
 * Called by the main thread, before there are others.
 */
#pragma once

#include <string>
#include <vector>

/* Until a configuration is read, and undoing one that was: lines from INFO on go to the standard
 * error stream, or to syslog(3) where that is the null device. */
void LogUntilConfigured();

/* Reads the log configuration, a log4cpp property file. What of it cannot be used (an appender
 * whose file cannot be opened, one that is not defined, an unknown level) is left out with an ERROR
 * line, the rest of it holds. Where nothing is left that takes the lines, they go to the standard
 * error stream, or where that is the null device to a file that i_pFallback names, which is rolled
 * over at a megabyte, or at last to syslog(3). */
void ConfigureLog(const char *i_pPath, const char *i_pFallback);

/* --- Offered: the daemon uses nothing of what follows. --------------------------------------- */

/* What of a log configuration ConfigureLog() would leave out, for a process that does not log. Its
 * files are opened for that as the calling user; one that was not there is removed again. What is
 * no regular file, empty or longer than a megabyte is not read: reading it might not end. */
std::vector<std::string> CheckLogConfig(const char *i_pPath);
/* The first file that a log configuration names; "" where it names none or is not read, see above.
 */
std::string FirstLogFile(const char *i_pPath);

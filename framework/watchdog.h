/*
 * Watchdog parent: splits the process in two and starts the child again when it crashes.
 *
 * Call it before any thread exists: the child begins from a plain fork(2).
 */
#pragma once

/* Returns 0, and only in a child process. The parent stays inside: it forks a new child one second
 * after one that was killed by SIGABRT, SIGBUS, SIGFPE or SIGSEGV or that ended with an exit code
 * other than 0 and 255, without limit; after any other end of the child it ends itself by exit(3),
 * with 0 if the child ended with 0 and with 1 otherwise. Asserts that a child could be forked.
 * i_pProgram: the program's name, not used. */
int CreateWatchdog(const char *i_pProgram);

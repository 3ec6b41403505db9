/*
 * Replacing a parameter file by an edited one, so that a power cut at any moment leaves the old or
 * the new file.
 *
 * Under the file's lock, which the daemon takes to read it, the new text goes into a file beside
 * it, is read back by the daemon's own parser, synced, and renamed over the old one; then the
 * folder is synced. Any thread may call.
 */
#pragma once

#include <string>
#include <vector>

#include "tools/param_edit.h"

enum class SaveResult {
    Saved,
    Damaged,    /* the file as it is cannot be edited; nothing was written */
    SystemError /* a file could not be locked, read or written; the old one is in place */
};

/* o_strError: the reason of a failure, with the file's name. A file that is missing is created, its
 * folder is not. Waits up to 5 s for another holder of the lock. */
SaveResult SaveParams(const std::string &i_strPath, const std::vector<PARAM_CHANGE_S> &i_objChanges,
                      std::string &o_strError);

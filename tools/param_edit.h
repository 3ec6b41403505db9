/*
 * Changes of single values in the text of a parameter file: everything but the changed values stays
 * byte for byte as it is, comments, unknown rows and spacing included.
 *
 * The text is scanned for where a value stands; whether the daemon then reads what was meant is for
 * the caller to check with the daemon's own parser. Functions without state; any thread may call
 * them.
 */
#pragma once

#include <optional>
#include <string>
#include <vector>

struct PARAM_CHANGE_S {
    std::string strSection;
    std::string strName;
    std::string strValue;
};

/* The text with the values in place: of the first parameter of that name, as the daemon finds it.
 * What is missing is added behind the section's last parameter, with its indentation; a blank text
 * becomes a whole document. None, with the reason in o_strError, for a text in which that place
 * cannot be found, such as one that is not well-formed. */
std::optional<std::string> EditParams(const std::string &i_strText,
                                      const std::vector<PARAM_CHANGE_S> &i_objChanges,
                                      std::string &o_strError);

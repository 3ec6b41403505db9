/*
 * bundle: what a maintainer wants to see in a report, as one file.
 */
#pragma once

#include <map>
#include <string>

#include "tools/command.h"

CRunCommand DescribeBundle(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext);

/* Puts "***" in the place of the user's name and password of every "//user:password@host". */
std::string HideCredentials(const std::string &i_strText);
/* Puts a stand-in ("ipv4-1", "mac-2") in the place of each address: IPv4, IPv6, hardware, and the
 * hexadecimal ones of /proc/net; the same one for the same address while the names are kept. What
 * tells nothing (127.x.x.x, 0.0.0.0, ::, ::1) stays. */
std::string MaskAddresses(const std::string &i_strText,
                          std::map<std::string, std::string> &io_objNames);

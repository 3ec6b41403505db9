/*
 * group.
 *
 * A group carries the low 19 bits of the hardware address, so two boxes may have the same one and
 * their receivers then see both streams mixed. Nothing on the network tells; a list of the
 * addresses does.
 */
#include "tools/ctl_group.h"

#include <cctype>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "common/box/utils_offered.h"

namespace
{
using CJson = nlohmann::ordered_json;
using CGroups = std::map<std::string, std::vector<std::string>>; /* group, its boxes */

struct OPTIONS_S {
    std::vector<std::string> strMacs;
    std::string strFile;
    bool bJson = false;
};

/* Reads 0a:1b:2c:3d:4e:5f, 0a-1b-2c-3d-4e-5f or 0a1b2c3d4e5f as the id; empty if it is none. */
std::string IdOf(const std::string &i_strMac)
{
    const bool bSeparated = i_strMac.size() == MAC_ID_LEN + 5;
    const char cSeparator = bSeparated ? i_strMac[2] : ':';
    if ((!bSeparated && i_strMac.size() != MAC_ID_LEN) ||
        (cSeparator != ':' && cSeparator != '-')) {
        return {};
    }
    std::string strId;
    for (std::size_t i = 0; i < i_strMac.size(); i++) {
        if (bSeparated && i % 3 == 2) {
            if (i_strMac[i] != cSeparator) {
                return {};
            }
        } else if (mac_char_check(&i_strMac[i])) {
            strId += static_cast<char>(std::tolower(static_cast<unsigned char>(i_strMac[i])));
        } else {
            return {};
        }
    }
    return strId;
}

/* The first word of every line; "#" begins a comment. */
void ReadList(std::istream &io_objList, std::vector<std::string> &io_strMacs)
{
    for (std::string strLine; std::getline(io_objList, strLine);) {
        std::istringstream objLine(strLine.substr(0, strLine.find('#')));
        std::string strMac;
        if (objLine >> strMac) {
            io_strMacs.push_back(strMac);
        }
    }
}

std::string Joined(const std::vector<std::string> &i_strWords)
{
    std::string strText;
    for (const std::string &strWord : i_strWords) {
        strText += (strText.empty() ? "" : " ") + strWord;
    }
    return strText;
}

void Show(std::ostream &io_objOut,
          const std::vector<std::pair<std::string, std::string>> &i_objBoxes,
          const CGroups &i_objShared, const std::vector<std::string> &i_strTwice, bool i_bJson)
{
    if (i_bJson) {
        CJson objJson = {{"ok", i_objShared.empty() && i_strTwice.empty()},
                         {"boxes", CJson::array()},
                         {"collisions", CJson::array()},
                         {"twice", i_strTwice}};
        for (const auto &[strMac, strGroup] : i_objBoxes) {
            objJson["boxes"].push_back({{"mac", strMac}, {"group", strGroup}});
        }
        for (const auto &[strGroup, strMacs] : i_objShared) {
            objJson["collisions"].push_back({{"group", strGroup}, {"macs", strMacs}});
        }
        io_objOut << objJson.dump() << "\n";
        return;
    }
    for (const auto &[strMac, strGroup] : i_objBoxes) {
        io_objOut << strMac << "  " << strGroup << "\n";
    }
    for (const auto &[strGroup, strMacs] : i_objShared) {
        io_objOut << "! " << strGroup << " is the group of " << strMacs.size()
                  << " boxes: " << Joined(strMacs) << "\n";
    }
    for (const std::string &strMac : i_strTwice) {
        io_objOut << "! " << strMac << " stands more than once in the list\n";
    }
}

int Group(const CTL_CONTEXT_S &i_stContext, const OPTIONS_S &i_stOptions)
{
    std::vector<std::string> strMacs = i_stOptions.strMacs;
    if (i_stOptions.strFile == "-") {
        ReadList(std::cin, strMacs);
    } else if (!i_stOptions.strFile.empty()) {
        std::ifstream objFile(i_stOptions.strFile);
        ReadList(objFile, strMacs);
        if (!objFile.eof()) {
            return i_stContext.Fail(CTL_SYSTEM_ERROR, i_stOptions.strFile + " cannot be read");
        }
    }
    if (strMacs.empty()) {
        return i_stContext.Usage("give at least one hardware address, or --file FILE");
    }
    std::map<std::string, std::vector<std::string>> objById; /* the spellings of one address */
    std::vector<std::pair<std::string, std::string>> objBoxes;
    CGroups objGroups;
    std::vector<std::string> strTwice;
    for (const std::string &strMac : strMacs) {
        const std::string strId = IdOf(strMac);
        std::string strGroup;
        if (strId.empty() || get_multicast_ip_by_id(strGroup, strId.c_str()) != 0) {
            return i_stContext.Usage("'" + strMac.substr(0, 80) +
                                     "' is no hardware address such as 0a:1b:2c:3d:4e:5f");
        }
        objBoxes.emplace_back(strMac, strGroup);
        std::vector<std::string> &strSame = objById[strId];
        strSame.push_back(strMac);
        if (strSame.size() == 1) {
            objGroups[strGroup].push_back(strMac);
        } else if (strSame.size() == 2) {
            strTwice.push_back(strMac);
        }
    }
    std::erase_if(objGroups, [](const auto &i_objGroup) { return i_objGroup.second.size() < 2; });
    Show(i_stContext.objOut, objBoxes, objGroups, strTwice, i_stOptions.bJson);
    return objGroups.empty() && strTwice.empty() ? CTL_OK : CTL_NOT_TAKEN;
}
} // namespace

CRunCommand DescribeGroup(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext)
{
    const auto pOptions = std::make_shared<OPTIONS_S>();
    io_objApp.add_option("MAC", pOptions->strMacs, "Hardware addresses of eth0 of the boxes");
    io_objApp
        .add_option("--file", pOptions->strFile, "More of them, one a line; - is standard input")
        ->type_name("FILE");
    AddJsonOption(io_objApp, pOptions->bJson);
    return [&i_stContext, pOptions] { return Group(i_stContext, *pOptions); };
}

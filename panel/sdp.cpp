/*
 * The stream's session description.
 */
#include "panel/sdp.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "framework/unique_fd.h"

std::string GroupOf(const std::string &i_strInterface)
{
    const UniqueFd objSocket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq stRequest = {};
    i_strInterface.copy(stRequest.ifr_name, sizeof(stRequest.ifr_name) - 1);
    if (ioctl(objSocket.Get(), SIOCGIFHWADDR, &stRequest) != 0) {
        return {};
    }
    const auto *pAddress = reinterpret_cast<const UInt8 *>(stRequest.ifr_hwaddr.sa_data);
    return "234." + std::to_string(24 + (pAddress[3] & 7)) + "." + std::to_string(pAddress[4]) +
           "." + std::to_string(pAddress[5]);
}

std::string FormatSdp(const std::string &i_strGroup, UInt32 u32PayloadType,
                      const std::string &i_strSps, const std::string &i_strPps)
{
    const std::string strType = std::to_string(u32PayloadType);
    std::string strFormat = "a=fmtp:" + strType + " packetization-mode=1";
    if (!i_strSps.empty() && !i_strPps.empty()) {
        strFormat += ";sprop-parameter-sets=" + i_strSps + "," + i_strPps;
    }
    return "v=0\r\n"
           "o=- 0 0 IN IP4 " +
           i_strGroup +
           "\r\n"
           "s=HDMI video encoder\r\n"
           "c=IN IP4 " +
           i_strGroup +
           "/1\r\n"
           "t=0 0\r\n"
           "m=video 59202 RTP/AVP " +
           strType +
           "\r\n"
           "a=rtpmap:" +
           strType + " H264/90000\r\n" + strFormat + "\r\n";
}

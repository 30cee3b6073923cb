#ifndef TOOLS_NETWORK_TEXT_H_
#define TOOLS_NETWORK_TEXT_H_

#include "rpc/profile/profile.pb.h"
#include "tools/happening.h"

namespace varnic::tools {

// "online   wifi         4g       10 Mbit/s  wlan0 wifi 192.0.2.7; eth0 ethernet down". For
// programs, type "network" with the event's JSON form, without its profile, as "change".
Happening DescribeNetworkChange(const rpc::NetworkChanged& event);

}  // namespace varnic::tools

#endif  // TOOLS_NETWORK_TEXT_H_

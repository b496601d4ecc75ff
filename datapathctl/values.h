// Ports, SPIs and numbers as a person writes them.
#ifndef DATAPATHCTL_VALUES_H_
#define DATAPATHCTL_VALUES_H_

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"

namespace datapathctl {

/// Bad input from the command line, a batch or a file; what() is one line for the user.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A number from min to max, decimal or, after "0x", hexadecimal. `what` names it in the error.
uint32_t parse_number(std::string_view text, uint32_t max, std::string_view what, uint32_t min = 0);

/// A UDP or TCP port number; the result is in network byte order, as the library takes it.
uint16_t parse_network_port(std::string_view text);

/// Ports of the form tcp/443, udp6/4500 or tcp/1000-1999, in the order given.
std::vector<PortDescriptor> parse_ports(const std::vector<std::string>& texts);

/// The protocols that ports may begin with: "tcp", "udp6" and so on.
std::vector<std::string> port_protocols();

/// "tcp", "udp6", "esp" and so on, by a tuple's IP version and IANA protocol number.
std::string protocol_name(uint8_t ip_proto, uint8_t trans_proto);

}  // namespace datapathctl

#endif  // DATAPATHCTL_VALUES_H_

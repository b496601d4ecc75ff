// Whatever looks at the messages of the exchanges: the process's trace callback and its capture
// file. In a dry run they are all that gets to see a request.
#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace corvil::netlink {

/// The id that every family has in a dry run; 0 when this is none and requests are sent.
uint16_t dry_run_family_id();

/// Shows a request before it is sent: `header`, then the message's bytes behind its own header.
/// Returns 0, or -1 with the last error recorded when there is no memory for a copy in one piece.
[[nodiscard]] int show_request(int protocol, const nlmsghdr& header, const nlmsghdr* message);

/// Shows a datagram that has been received.
void show_received(int protocol, std::span<const std::byte> datagram);

}  // namespace corvil::netlink

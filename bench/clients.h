// Clients on libmnl and on libnl, as a careful programmer writes them for the library's requests,
// and the bare system calls. Sizes are summed up first, ports validated, a zeroed buffer has
// exactly the size, and sockets are kept. What cannot be opened fails when it is used.
#ifndef BENCH_CLIENTS_H_
#define BENCH_CLIENTS_H_

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/genetlink.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "host_interfaces/corvil_netlink.h"
#include "host_interfaces/corvil_port_utils.h"
#include "kernel_interface/tavik_wlan.h"

namespace bench {

/// While set, the library's host does nothing, for the clients, too: building is all that is left.
inline bool null_host = false;
inline int ask_null_host() {
  uint16_t family = 0;
  return corvil_netlink_query_genl(TAVIK_WLAN_FAMILY_NAME, 1, &family) == -1 ? -1 : family;
}
inline int send_to_null_host(const nlmsghdr* request) {
  return corvil_netlink_transact(request, NETLINK_GENERIC, nullptr);
}

inline const char* family_name = TAVIK_WLAN_FAMILY_NAME;
inline int bare = -1;  // The client on libmnl uses the same socket.
inline nl_sock* on_libnl = nullptr;
inline constexpr size_t kBufferSize = size_t{128} * 1024;
alignas(nlmsghdr) inline char buffer[kBufferSize];

/// libmnl and libnl can open no socket to the emulator.
inline int open_bare(const char* emulator) {
  if (emulator == nullptr) {
    return socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
  }
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  strncpy(address.sun_path, emulator, sizeof(address.sun_path) - 1);
  return connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 ? fd : -1;
}

/// Takes the place of nl_recv(), which insists on a netlink address. It saves libnl its look at the
/// size first.
inline int receive_for_libnl(nl_sock* socket, sockaddr_nl* sender, unsigned char** bytes,
                             ucred** /*credentials*/) {
  *sender = {};
  *bytes = static_cast<unsigned char*>(malloc(kBufferSize));
  return static_cast<int>(recv(nl_socket_get_fd(socket), *bytes, kBufferSize, 0));
}

/// Connects to the emulator that CORVIL_NETLINK_EMULATOR names, or else to the kernel.
inline void connect_clients() {
  const char* emulator = getenv("CORVIL_NETLINK_EMULATOR");
  bare = open_bare(emulator);
  on_libnl = nl_socket_alloc();
  genl_connect(on_libnl);
  if (emulator != nullptr) {
    dup2(open_bare(emulator), nl_socket_get_fd(on_libnl));
    nl_cb_overwrite_recv(nl_socket_get_cb(on_libnl), receive_for_libnl);
  }
}

/// Sends and takes replies up to the last, or until `callback` has what it wants.
inline int exchange(nlmsghdr* request, mnl_cb_t callback, void* context) {
  static uint32_t sequence = 0;
  request->nlmsg_seq = ++sequence;
  ssize_t size = send(bare, request, request->nlmsg_len, 0);
  int result = MNL_CB_OK;
  while (size >= 0 && result > MNL_CB_STOP) {
    size = recv(bare, buffer, kBufferSize, 0);
    result = mnl_cb_run(buffer, static_cast<size_t>(size), sequence, 0, callback, context);
  }
  return size < 0 ? -1 : result;
}

inline int take_family(const nlmsghdr* reply, void* context) {
  const auto take_id = [](const nlattr* attribute, void* id) {
    if (mnl_attr_get_type(attribute) == CTRL_ATTR_FAMILY_ID &&
        mnl_attr_validate(attribute, MNL_TYPE_U16) == 0) {
      *static_cast<int*>(id) = mnl_attr_get_u16(attribute);
    }
    return MNL_CB_OK;
  };
  mnl_attr_parse(reply, GENL_HDRLEN, take_id, context);
  return MNL_CB_STOP;
}

/// What all do with a tuple that was read back: hand its port on.
inline bool take_tuple(const nlattr* attribute) {
  DatapathTuple tuple;
  if (mnl_attr_get_type(attribute) != TAVIK_WLAN_TUPLE_ATTR ||
      mnl_attr_get_payload_len(attribute) < sizeof(tuple)) {
    return false;
  }
  memcpy(&tuple, mnl_attr_get_payload(attribute), sizeof(tuple));
  return corvil_port_utils_add_port_from_kernel(ntohs(tuple.key.port), tuple.ip_proto,
                                                tuple.trans_proto) == 0;
}

inline int take_container(const nlattr* container, void* /*context*/) {
  const auto* element = static_cast<const nlattr*>(mnl_attr_get_payload(container));
  int left = mnl_attr_get_payload_len(container);
  while (mnl_attr_get_type(container) == TAVIK_WLAN_ATTR_TUPLES && mnl_attr_ok(element, left)) {
    const auto* tuple = static_cast<const nlattr*>(mnl_attr_get_payload(element));
    if (!mnl_attr_ok(tuple, mnl_attr_get_payload_len(element)) || !take_tuple(tuple)) {
      return MNL_CB_ERROR;
    }
    left -= MNL_ALIGN(element->nla_len);
    element = mnl_attr_next(element);
  }
  return MNL_CB_OK;
}

class MnlMessage {
 public:
  MnlMessage(uint16_t family, uint8_t command, size_t attributes,
             uint16_t flags = NLM_F_REQUEST | NLM_F_ACK) {
    void* zeroed = calloc(1, MNL_NLMSG_HDRLEN + GENL_HDRLEN + attributes);
    if (zeroed == nullptr) {
      return;
    }
    header_ = mnl_nlmsg_put_header(zeroed);
    header_->nlmsg_type = family;
    header_->nlmsg_flags = flags;
    auto* generic = static_cast<genlmsghdr*>(mnl_nlmsg_put_extra_header(header_, GENL_HDRLEN));
    generic->cmd = command;
    generic->version = TAVIK_WLAN_FAMILY_VERSION;
  }
  MnlMessage(MnlMessage&&) = delete;
  ~MnlMessage() { free(header_); }

  explicit operator bool() const { return header_ != nullptr; }
  nlmsghdr* header() { return header_; }
  void put(uint16_t type, uint8_t value) { mnl_attr_put_u8(header_, type, value); }
  void put(uint16_t type, uint16_t value) { mnl_attr_put_u16(header_, type, value); }
  void put(uint16_t type, const char* text) { mnl_attr_put_strz(header_, type, text); }
  void put(uint16_t type, const DatapathTuple& tuple) {
    mnl_attr_put(header_, type, sizeof(tuple), &tuple);
  }
  nlattr* open(uint16_t type) { return mnl_attr_nest_start(header_, type); }
  void close(nlattr* nest) { mnl_attr_nest_end(header_, nest); }

  static int resolve();  // the family's id or -1
  int send() {
    return null_host ? send_to_null_host(header_) : exchange(header_, nullptr, nullptr);
  }

 private:
  nlmsghdr* header_ = nullptr;
};

class NlMessage {
 public:
  NlMessage(uint16_t family, uint8_t command, size_t attributes)
      : message_(nlmsg_alloc_size(NLMSG_HDRLEN + GENL_HDRLEN + attributes)) {
    if (message_ != nullptr) {
      genlmsg_put(message_, NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, NLM_F_REQUEST | NLM_F_ACK,
                  command, TAVIK_WLAN_FAMILY_VERSION);
    }
  }
  NlMessage(NlMessage&&) = delete;
  ~NlMessage() { nlmsg_free(message_); }

  explicit operator bool() const { return message_ != nullptr; }
  void put(uint16_t type, uint8_t value) { nla_put_u8(message_, type, value); }
  void put(uint16_t type, uint16_t value) { nla_put_u16(message_, type, value); }
  void put(uint16_t type, const char* text) { nla_put_string(message_, type, text); }
  void put(uint16_t type, const DatapathTuple& tuple) {
    nla_put(message_, type, sizeof(tuple), &tuple);
  }
  nlattr* open(uint16_t type) { return nla_nest_start(message_, type); }
  void close(nlattr* nest) { nla_nest_end(message_, nest); }

  static int resolve() {
    return null_host ? ask_null_host() : genl_ctrl_resolve(on_libnl, family_name);
  }
  int send() {
    return null_host ? send_to_null_host(nlmsg_hdr(message_))
                     : nl_send_sync(on_libnl, std::exchange(message_, nullptr));
  }

 private:
  nl_msg* message_;
};

// What requests carry: its size, and what puts it, or fails when it is invalid.

inline size_t attribute_size(size_t payload) { return MNL_ALIGN(MNL_ATTR_HDRLEN + payload); }
inline size_t payload_size(const char* text) { return strlen(text) + 1; }
inline size_t payload_size(auto number) { return sizeof(number); }

template <typename Value>
struct Attribute {
  uint16_t type;
  Value value;
  [[nodiscard]] size_t size() const { return attribute_size(payload_size(value)); }
  bool put(auto& message) const { return message.put(type, value), true; }
};

struct Flow {
  IpsecInfo info;
  const char* address;
};

inline bool fill(const Flow& flow, DatapathTuple* tuple) {
  tuple->key.spi = flow.info.spi;
  tuple->ip_proto =
      strchr(flow.address, ':') != nullptr ? TAVIK_WLAN_IP_PROTO_IPV6 : TAVIK_WLAN_IP_PROTO_IPV4;
  tuple->trans_proto = TAVIK_WLAN_TRANS_PROTO_ESP;
  return true;
}

inline bool fill(const PortDescriptor& port, DatapathTuple* tuple) {
  tuple->key.port = htons(port.port);
  tuple->ip_proto = static_cast<uint8_t>(port.ip_proto);
  tuple->trans_proto = static_cast<uint8_t>(port.trans_proto);
  return (port.ip_proto == TAVIK_WLAN_IP_PROTO_IPV4 || port.ip_proto == TAVIK_WLAN_IP_PROTO_IPV6) &&
         (port.trans_proto == TAVIK_WLAN_TRANS_PROTO_TCP ||
          port.trans_proto == TAVIK_WLAN_TRANS_PROTO_UDP);
}

template <typename Element>
struct Tuples {
  const Element* elements;
  uint32_t count;
  [[nodiscard]] size_t size() const {
    return attribute_size(count * attribute_size(attribute_size(sizeof(DatapathTuple))));
  }
  bool put(auto& message) const {
    nlattr* container = message.open(TAVIK_WLAN_ATTR_TUPLES);
    bool valid = count <= TAVIK_WLAN_TUPLES_PER_MESSAGE;
    for (uint32_t i = 0; i < count && valid; ++i) {
      DatapathTuple tuple{};
      valid = fill(elements[i], &tuple);
      nlattr* element = message.open(TAVIK_WLAN_TUPLE_ELEMENT);
      message.put(TAVIK_WLAN_TUPLE_ATTR, tuple);
      message.close(element);
    }
    message.close(container);
    return valid;
  }
};

/// Sends a command; negative when that fails. Inlined, so that the compiler knows all sizes that
/// the caller knows.
template <class Message, typename... Carried>
[[gnu::always_inline]] inline int request(uint8_t command, const Carried&... carried) {
  const int family = Message::resolve();
  if (family < 0) {
    return -1;
  }
  Message message(static_cast<uint16_t>(family), command, (carried.size() + ... + 0));
  return message && (carried.put(message) && ...) ? message.send() : -1;
}

// What has no generic form

struct FamilyQuery : MnlMessage {
  FamilyQuery()
      : MnlMessage(GENL_ID_CTRL, CTRL_CMD_GETFAMILY, attribute_size(GENL_NAMSIZ), NLM_F_REQUEST) {
    put(CTRL_ATTR_FAMILY_NAME, family_name);
  }
};

inline nlmsghdr* family_query() {
  static FamilyQuery query;
  return query.header();
}

inline int ask_controller() {
  int id = -1;
  return exchange(family_query(), take_family, &id) >= 0 ? id : -1;
}

inline int MnlMessage::resolve() { return null_host ? ask_null_host() : ask_controller(); }

inline int read_back_by_libmnl() {
  MnlMessage message(static_cast<uint16_t>(MnlMessage::resolve()), TAVIK_WLAN_CMD_GET_TUPLES, 0,
                     NLM_F_REQUEST | NLM_F_DUMP);
  const auto take_reply = [](const nlmsghdr* reply, void* context) {
    return mnl_attr_parse(reply, GENL_HDRLEN, take_container, context);
  };
  return exchange(message.header(), take_reply, nullptr);
}

/// Sends prepared bytes and takes an answer, whatever it says; a dump up to its end.
inline int bare_exchange(const nlmsghdr* request) {
  bool more = send(bare, request, request->nlmsg_len, 0) >= 0;
  while (more) {
    int left = static_cast<int>(recv(bare, buffer, kBufferSize, 0));
    const auto* message = reinterpret_cast<const nlmsghdr*>(buffer);
    more = left > 0 && (request->nlmsg_flags & (NLM_F_ACK | NLM_F_DUMP)) != 0;
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
      more &= message->nlmsg_type != NLMSG_DONE && message->nlmsg_type != NLMSG_ERROR;
    }
  }
  return 0;
}

inline int bare_look_up() { return bare_exchange(family_query()); }

inline std::string bare_request;  // of the call at hand

inline int bare_call() {
  bare_look_up();
  return bare_exchange(reinterpret_cast<const nlmsghdr*>(bare_request.data()));
}

}  // namespace bench

#endif  // BENCH_CLIENTS_H_

// Whole calls over sockets, and what their system calls cost by themselves.
#include <benchmark/benchmark.h>
#include <libmnl/libmnl.h>
#include <linux/genetlink.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/host.h"
#include "bench/operation.h"
#include "bench/rival.h"
#include "host_interfaces/corvil_netlink.h"
#include "host_interfaces/corvil_port_utils.h"
#include "reference_host/port_utils/corvil_port_tree.h"

namespace bench {
namespace {

constexpr const char* kEmulatorVariable = "CORVIL_NETLINK_EMULATOR";
constexpr uint32_t kListedPorts = 256;

constexpr size_t kBufferSize = size_t{128} * 1024;
alignas(nlmsghdr) char buffer[kBufferSize];

int require(int result, const char* what) {
  if (result < 0) {
    perror(what);
    exit(1);
  }
  return result;
}

/// The rivals' kept sockets to one peer.
struct Sockets {
  bool emulated;
  mnl_socket* mnl;
  nl_sock* nl;
  int bare;
};
const Sockets* sockets = nullptr;

// Sockets: the kernel's, or such to the emulator in their place, which libmnl and libnl cannot open

int connect_emulator(const char* path) {
  const int fd = require(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), "socket");
  sockaddr_un address{AF_UNIX, {}};
  strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
  require(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), path);
  return fd;
}

/// Takes the place of nl_recv(), which insists on a netlink address. It saves libnl its look at the
/// size first.
int receive_for_nl(nl_sock* socket, sockaddr_nl* sender, unsigned char** bytes, ucred** /*from*/) {
  *sender = {};
  *bytes = static_cast<unsigned char*>(malloc(kBufferSize));
  const ssize_t size = recv(nl_socket_get_fd(socket), *bytes, kBufferSize, 0);
  return size < 0 ? -NLE_FAILURE : static_cast<int>(size);
}

nl_sock* open_nl(const char* emulator) {
  nl_sock* socket = nl_socket_alloc();
  require(genl_connect(socket), "libnl");
  if (emulator != nullptr) {
    const int fd = connect_emulator(emulator);
    require(dup2(fd, nl_socket_get_fd(socket)), "dup2");
    close(fd);
    nl_cb* callbacks = nl_socket_get_cb(socket);
    nl_cb_overwrite_recv(callbacks, receive_for_nl);
    nl_cb_put(callbacks);
  }
  return socket;
}

mnl_socket* open_mnl(const char* emulator) {
  mnl_socket* socket = emulator != nullptr ? mnl_socket_fdopen(connect_emulator(emulator))
                                           : mnl_socket_open2(NETLINK_GENERIC, SOCK_CLOEXEC);
  require(socket != nullptr ? 0 : -1, "libmnl");
  if (emulator == nullptr) {
    require(mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID), "libmnl");
  }
  return socket;
}

Sockets open_sockets(const char* emulator) {
  return {emulator != nullptr, open_mnl(emulator), open_nl(emulator),
          mnl_socket_get_fd(open_mnl(emulator))};
}

std::string emulator_path() {
  const char* path = getenv(kEmulatorVariable);
  return path != nullptr ? path : "";
}

void use_emulator() {
  static const std::string path = emulator_path();
  static const Sockets opened = open_sockets(path.c_str());
  sockets = &opened;
  setenv(kEmulatorVariable, path.c_str(), 1);
}

void use_kernel() {
  static const Sockets opened = open_sockets(nullptr);
  sockets = &opened;
  unsetenv(kEmulatorVariable);
}

// libmnl

ssize_t receive_for_mnl() {
  // mnl_socket_recvfrom() insists on a netlink address.
  return sockets->emulated ? recv(mnl_socket_get_fd(sockets->mnl), buffer, kBufferSize, 0)
                           : mnl_socket_recvfrom(sockets->mnl, buffer, kBufferSize);
}

/// Sends and takes replies up to the last, or until `callback` has what it wants.
int mnl_exchange(nlmsghdr* request, mnl_cb_t callback, void* context) {
  static uint32_t sequence = 0;
  request->nlmsg_seq = ++sequence;
  if (mnl_socket_sendto(sockets->mnl, request, request->nlmsg_len) == -1) {
    return -1;
  }
  const unsigned port_id = mnl_socket_get_portid(sockets->mnl);
  int result = MNL_CB_OK;
  while (result > MNL_CB_STOP) {
    const ssize_t size = receive_for_mnl();
    result = size < 0 ? -1
                      : mnl_cb_run(buffer, static_cast<size_t>(size), request->nlmsg_seq, port_id,
                                   callback, context);
  }
  return result;
}

int mnl_take_family(const nlmsghdr* reply, void* context) {
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

nlmsghdr* put_family_query(void* bytes, const char* family, uint16_t more_flags) {
  nlmsghdr* query = mnl_nlmsg_put_header(bytes);
  query->nlmsg_type = GENL_ID_CTRL;
  query->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | more_flags);
  auto* generic = static_cast<genlmsghdr*>(mnl_nlmsg_put_extra_header(query, GENL_HDRLEN));
  generic->cmd = CTRL_CMD_GETFAMILY;
  generic->version = 1;
  mnl_attr_put_strz(query, CTRL_ATTR_FAMILY_NAME, family);
  return query;
}

int mnl_resolve(const char* family) {
  alignas(nlmsghdr) char query[64]{};
  int id = -1;
  return mnl_exchange(put_family_query(query, family, 0), mnl_take_family, &id) == -1 ? -1 : id;
}

struct MnlTransport {
  using Message = MnlMessage;
  static int resolve() { return mnl_resolve(TAVIK_WLAN_FAMILY_NAME); }
  static int send(Message& message) { return mnl_exchange(message.header(), nullptr, nullptr); }
};

int add_tuple(const void* payload, size_t size) {
  DatapathTuple tuple;
  if (size < sizeof(tuple)) {
    return -1;
  }
  memcpy(&tuple, payload, sizeof(tuple));
  return corvil_port_utils_add_port_from_kernel(ntohs(tuple.key.port), tuple.ip_proto,
                                                tuple.trans_proto);
}

int mnl_take_element(const nlattr* element, void* /*context*/) {
  const auto* tuple = static_cast<const nlattr*>(mnl_attr_get_payload(element));
  const bool taken = mnl_attr_ok(tuple, mnl_attr_get_payload_len(element)) &&
                     mnl_attr_get_type(tuple) == TAVIK_WLAN_TUPLE_ATTR &&
                     add_tuple(mnl_attr_get_payload(tuple), mnl_attr_get_payload_len(tuple)) == 0;
  return taken ? MNL_CB_OK : MNL_CB_ERROR;
}

int mnl_take_tuples(const nlmsghdr* reply, void* context) {
  const auto take_container = [](const nlattr* container, void* unused) {
    return mnl_attr_get_type(container) == TAVIK_WLAN_ATTR_TUPLES
               ? mnl_attr_parse_nested(container, mnl_take_element, unused)
               : MNL_CB_OK;
  };
  return mnl_attr_parse(reply, GENL_HDRLEN, take_container, context);
}

int mnl_read_back(uint32_t /*size*/) {
  const int family = mnl_resolve(TAVIK_WLAN_FAMILY_NAME);
  MnlMessage request(static_cast<uint16_t>(family), TAVIK_WLAN_CMD_GET_TUPLES, 0);
  request.header()->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  return family < 0 ? -1 : mnl_exchange(request.header(), mnl_take_tuples, nullptr);
}

// libnl

int nl_resolve(const char* family) { return genl_ctrl_resolve(sockets->nl, family); }

struct NlTransport {
  using Message = NlMessage;
  static int resolve() { return nl_resolve(TAVIK_WLAN_FAMILY_NAME); }
  static int send(Message& message) {
    return nl_send_sync(sockets->nl, message.release()) < 0 ? -1 : 0;
  }
};

int nl_take_tuples(nl_msg* reply, void* /*context*/) {
  auto* generic = static_cast<genlmsghdr*>(nlmsg_data(nlmsg_hdr(reply)));
  nlattr* container =
      nla_find(genlmsg_attrdata(generic, 0), genlmsg_attrlen(generic, 0), TAVIK_WLAN_ATTR_TUPLES);
  if (container == nullptr) {
    return NL_STOP;
  }
  nlattr* element = nullptr;
  int left = 0;
  nla_for_each_nested(element, container, left) {
    const auto* tuple = static_cast<const nlattr*>(nla_data(element));
    if (!nla_ok(tuple, nla_len(element)) || nla_type(tuple) != TAVIK_WLAN_TUPLE_ATTR ||
        add_tuple(nla_data(tuple), static_cast<size_t>(nla_len(tuple))) != 0) {
      return NL_STOP;
    }
  }
  return NL_OK;
}

int nl_read_back(uint32_t /*size*/) {
  nl_socket_modify_cb(sockets->nl, NL_CB_VALID, NL_CB_CUSTOM, nl_take_tuples, nullptr);
  const int family = nl_resolve(TAVIK_WLAN_FAMILY_NAME);
  NlMessage request(static_cast<uint16_t>(family), TAVIK_WLAN_CMD_GET_TUPLES, 0);
  request.header()->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  nl_msg* message = request.release();
  const int sent = family < 0 ? -1 : nl_send_auto(sockets->nl, message);
  nlmsg_free(message);
  return sent < 0 || nl_recvmsgs_default(sockets->nl) < 0 ? -1 : 0;
}

// The floor: the bare system calls with prepared bytes

int bare_send(const std::string& bytes) {
  return send(sockets->bare, bytes.data(), bytes.size(), 0) < 0 ? -1 : 0;
}

ssize_t bare_receive() { return recv(sockets->bare, buffer, kBufferSize, 0); }

/// What the family is asked for, without and with an acknowledgement behind the answer.
std::string query_bytes;
std::string acknowledged_query_bytes;
std::string request_bytes;

void prepare_query(const char* family) {
  alignas(nlmsghdr) char bytes[64]{};
  query_bytes.assign(bytes, put_family_query(bytes, family, 0)->nlmsg_len);
  acknowledged_query_bytes.assign(bytes, put_family_query(bytes, family, NLM_F_ACK)->nlmsg_len);
}

/// The bytes of a call's only request, with the family's id of now.
void prepare_request(int (*call)(uint32_t), uint32_t size) {
  uint16_t family = 0;
  require(corvil_netlink_query_genl(TAVIK_WLAN_FAMILY_NAME, TAVIK_WLAN_FAMILY_VERSION, &family),
          TAVIK_WLAN_FAMILY_NAME);
  prepare_query(TAVIK_WLAN_FAMILY_NAME);
  request_bytes.clear();
  recorded = &request_bytes;
  null_host = true;
  call(size);
  null_host = false;
  recorded = nullptr;
  reinterpret_cast<nlmsghdr*>(request_bytes.data())->nlmsg_type = family;
}

int bare_query(uint32_t /*size*/) {
  return bare_send(query_bytes) == -1 || bare_receive() < 0 ? -1 : 0;
}

int bare_acknowledged_query(uint32_t /*size*/) {
  return bare_send(acknowledged_query_bytes) == -1 || bare_receive() < 0 || bare_receive() < 0 ? -1
                                                                                               : 0;
}

int bare_request() { return bare_send(request_bytes) == -1 || bare_receive() < 0 ? -1 : 0; }

int bare_call(uint32_t size) { return bare_query(size) == -1 ? -1 : bare_request(); }

int bare_call_of_five(uint32_t size) {
  return bare_acknowledged_query(size) == -1 ? -1 : bare_request();
}

/// Whether a datagram of a dump is the last one.
bool ends_dump(ssize_t size) {
  const auto* message = reinterpret_cast<const nlmsghdr*>(buffer);
  for (int left = static_cast<int>(size); mnl_nlmsg_ok(message, left);
       message = mnl_nlmsg_next(message, &left)) {
    if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR) {
      return true;
    }
  }
  return size <= 0;
}

int bare_read_back(uint32_t size) {
  if (bare_query(size) == -1 || bare_send(request_bytes) == -1) {
    return -1;
  }
  while (!ends_dump(bare_receive())) {
  }
  return 0;
}

// Operations

int set_encap_port(uint32_t /*size*/) {
  return corvil_datapath_proxy_set_udp_encap_port(kEncapPort);
}

template <class R>
int set_encap_port_on(uint32_t /*size*/) {
  return R::encap_port(TAVIK_WLAN_CMD_SET_ENCAP_PORT, kEncapPort);
}

int add_ports(uint32_t count) {
  return corvil_datapath_proxy_update_config_info(ports(), count, nullptr, 0);
}

template <class R>
int add_ports_on(uint32_t count) {
  return R::ports(TAVIK_WLAN_CMD_ADD_TUPLES, ports(), count);
}

int read_back(uint32_t /*size*/) { return corvil_datapath_proxy_get_port_tuple(); }

/// Has the kernel hold so many tuples.
void hold_tuples(uint32_t count) {
  static uint32_t held = 0;
  if (held == count) {
    return;
  }
  require(corvil_datapath_proxy_flush_config_info(), "reset");
  for (held = 0; held < count;) {
    const uint32_t added = std::min(count - held, uint32_t{CORVIL_DATAPATH_PROXY_MAX_PORTS});
    require(corvil_datapath_proxy_update_config_info(ports() + held, added, nullptr, 0), "ports");
    held += added;
  }
}

void prepare_encap_port(uint32_t size) {
  hold_tuples(kListedPorts);
  prepare_request(set_encap_port, size);
}

void prepare_ports(uint32_t size) {
  hold_tuples(kListedPorts);
  prepare_request(add_ports, size);
}

void prepare_read_back(uint32_t size) {
  hold_tuples(size);
  prepare_request(read_back, size);
  auto* header = reinterpret_cast<nlmsghdr*>(request_bytes.data());
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  null_tree = true;
}

/// With the reference host's tree, which holds the ports from before.
void prepare_tree(uint32_t size) {
  prepare_read_back(size);
  null_tree = false;
  read_back(size);
}

template <void (*use_peer)(), void (*prepare)(uint32_t)>
void prepare_with(uint32_t size) {
  use_peer();
  prepare(size);
}

using Run = int (*)(uint32_t);

/// Adds a case by the rivals that have a run, in this order.
void add_case(std::vector<Operation>* operations, const std::string& name, uint32_t size,
              void (*prepare)(uint32_t), const std::vector<Run>& runs) {
  static constexpr const char* kRivals[] = {"library", "libmnl", "libnl", "floor", "floor of 5"};
  for (size_t i = 0; i < runs.size(); ++i) {
    operations->push_back({name + '/' + kRivals[i], size, prepare, runs[i]});
  }
}

template <void (*use_peer)()>
std::vector<Operation> operations_with(const std::string& peer) {
  using OnMnl = Rival<MnlTransport>;
  using OnNl = Rival<NlTransport>;
  std::vector<Operation> operations;
  add_case(&operations, peer + "/set_udp_encap_port", 0, prepare_with<use_peer, prepare_encap_port>,
           {set_encap_port, set_encap_port_on<OnMnl>, set_encap_port_on<OnNl>, bare_call,
            bare_call_of_five});
  add_case(&operations, peer + "/add 256 ports", kListedPorts,
           prepare_with<use_peer, prepare_ports>,
           {add_ports, add_ports_on<OnMnl>, add_ports_on<OnNl>, bare_call, bare_call_of_five});
  for (const uint32_t count : {1000U, 10000U, 60000U}) {
    add_case(&operations, peer + "/read back " + std::to_string(count), count,
             prepare_with<use_peer, prepare_read_back>,
             {read_back, mnl_read_back, nl_read_back, bare_read_back});
  }
  add_case(&operations, peer + "/read back 60000 into the tree", 60000,
           prepare_with<use_peer, prepare_tree>, {read_back, mnl_read_back, nl_read_back});
  return operations;
}

constexpr const char* kController = "nlctrl";

void prepare_controller(uint32_t /*size*/) {
  use_kernel();
  prepare_query(kController);
}

int host_resolve(uint32_t /*size*/) {
  uint16_t family = 0;
  return corvil_netlink_query_genl(kController, 2, &family);
}

}  // namespace

std::vector<Operation> call_operations(const std::string& peer) {
  return peer == "kernel" ? operations_with<use_kernel>(peer) : operations_with<use_emulator>(peer);
}

std::vector<Operation> controller_operations() {
  const auto resolve_mnl = [](uint32_t) { return mnl_resolve(kController); };
  const auto resolve_nl = [](uint32_t) { return nl_resolve(kController); };
  std::vector<Operation> operations;
  add_case(&operations, "controller/resolve", 0, prepare_controller,
           {host_resolve, resolve_mnl, resolve_nl, bare_query, bare_acknowledged_query});
  return operations;
}

}  // namespace bench

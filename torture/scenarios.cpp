#include "torture/scenarios.h"

#include <arpa/inet.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "datapathctl/values.h"

namespace torture {
namespace {

using datapathctl::parse_network_port;
using datapathctl::parse_ports;
using Words = std::vector<std::string>;

constexpr Step kRequired{};
constexpr Step kForgiving{.forgives_existing = true};
constexpr Step kFlow{.forgives_existing = true, .quiet = true};
constexpr Step kPortsOfTearDown{.failure = Step::Failure::kCounts};
constexpr Step kFlushOfTearDown{Step::Failure::kIgnored, true, true};
constexpr Step kQuery{.failure = Step::Failure::kOnlyBuilt};

uint32_t number(const std::string& text) {
  return static_cast<uint32_t>(std::stoul(text, nullptr, 0));
}

/// proxy up|down DEVICE --from FROM --to TO --selector SELECTOR PORTS...
Call make_proxy(const Words& w, decltype(corvil_datapath_proxy_set_config_info)* function,
                std::vector<Step> steps) {
  return {[=, ports = parse_ports({w.begin() + 9, w.end()}), selector = number(w[8])] {
            return function(w[2].c_str(), w[6].c_str(), w[4].c_str(), ports.data(),
                            static_cast<uint32_t>(ports.size()), selector);
          },
          std::move(steps)};
}

/// proxy update --old PORTS... --new PORTS...
Call make_update(const Words& w) {
  const auto middle = std::ranges::find(w, "--new");
  return {[old = parse_ports({w.begin() + 3, middle}), added = parse_ports({middle + 1, w.end()})] {
            return corvil_datapath_proxy_update_config_info(
                added.data(), static_cast<uint32_t>(added.size()), old.data(),
                static_cast<uint32_t>(old.size()));
          },
          {kRequired, kRequired}};
}

/// proxy unmap --from FROM --to TO --selector SELECTOR
Call make_unmap(const Words& w) {
  return {[w, selector = number(w[7])] {
            return corvil_datapath_proxy_unset_reverse_dev_mapping(selector, w[5].c_str(),
                                                                   w[3].c_str());
          },
          {kRequired}};
}

/// ipsec add|delete SPI ADDRESS
Call make_ipsec(const Words& w, decltype(corvil_datapath_proxy_add_ipsec_info)* function) {
  const IpsecInfo info = {{}, htonl(number(w[2]))};
  return {[=] { return function(&info, w[3].c_str()); }, {kRequired}};
}

/// encap VERB PORT
Call make_encap(const Words& w, int (*function)(uint16_t)) {
  return {[=, port = parse_network_port(w[2])] { return function(port); }, {kRequired}};
}

/// lowlat add SOURCE PORT DESTINATION PORT
Call make_flow(const Words& w) {
  return {[w, source_port = parse_network_port(w[3]), port = parse_network_port(w[5])] {
            return corvil_datapath_proxy_add_ll_dst_addr(w[2].c_str(), w[4].c_str(), source_port,
                                                         port);
          },
          {kFlow}};
}

Call make_call(const std::string& command) {
  std::istringstream stream(command);
  const Words w{std::istream_iterator<std::string>(stream), {}};
  const std::string name = w[0] + (w.size() > 1 ? " " + w[1] : "");
  const std::map<std::string, std::function<Call()>> makers = {
      {"proxy up",
       [&] {
         return make_proxy(w, corvil_datapath_proxy_set_config_info,
                           {kRequired, kForgiving, kRequired});
       }},
      {"proxy down",
       [&] {
         return make_proxy(w, corvil_datapath_proxy_unset_config_info,
                           {kRequired, kRequired, kPortsOfTearDown, kFlushOfTearDown});
       }},
      {"proxy update", [&] { return make_update(w); }},
      {"proxy unmap", [&] { return make_unmap(w); }},
      {"reset",
       [] {
         return Call{corvil_datapath_proxy_flush_config_info, {kRequired}};
       }},
      {"ipsec add", [&] { return make_ipsec(w, corvil_datapath_proxy_add_ipsec_info); }},
      {"ipsec delete", [&] { return make_ipsec(w, corvil_datapath_proxy_delete_ipsec_info); }},
      {"encap set", [&] { return make_encap(w, corvil_datapath_proxy_set_udp_encap_port); }},
      {"encap unset", [&] { return make_encap(w, corvil_datapath_proxy_unset_udp_encap_port); }},
      {"encap pass-through",
       [&] { return make_encap(w, corvil_datapath_proxy_act_encap_port_pass_through); }},
      {"encap drop", [&] { return make_encap(w, corvil_datapath_proxy_act_encap_port_drop); }},
      {"lowlat add", [&] { return make_flow(w); }},
      {"lowlat flush",
       [] {
         return Call{corvil_datapath_proxy_flush_ll_dst_addr, {kFlow}};
       }},
      {"ports",
       [] {
         return Call{corvil_datapath_proxy_get_port_tuple, {kQuery}};
       }},
  };
  return makers.at(name)();
}

std::vector<Call> make_calls(const Words& commands) {
  std::vector<Call> calls;
  std::ranges::transform(commands, std::back_inserter(calls), make_call);
  return calls;
}

/// The blocks between blank lines, without remarks and what is no call of the library.
std::vector<Words> read_blocks(const std::string& path) {
  std::ifstream file(path);
  file.exceptions(std::ios::badbit);
  std::vector<Words> blocks(1);
  for (std::string line; std::getline(file, line);) {
    if (line.empty() && !blocks.back().empty()) {
      blocks.emplace_back();
    } else if (!line.empty() && !line.starts_with('#') && line != "state") {
      blocks.back().push_back(line);
    }
  }
  return blocks;
}

}  // namespace

std::vector<Scenario> make_scenarios(const std::string& batch_path) {
  std::vector<Scenario> scenarios;
  Words before;
  for (const Words& block : read_blocks(batch_path)) {
    scenarios.push_back(
        {"batch from \"" + block.at(0) + "\"", make_calls(before), make_calls(block), 0});
    before.insert(before.end(), block.begin(), block.end());
  }
  const std::string pair = " --from wwan0 --to wlan0 --selector 1";
  const std::string up = "proxy up wlan0" + pair + " tcp/443 udp6/4500";
  const std::string flow = "lowlat add 10.0.0.1 5000 10.0.0.2 5001";
  const std::string ipsec = "0x1001 2001:db8::1";
  const std::vector<std::pair<Words, std::string>> single_calls = {
      {{}, up},
      {{up, flow}, "proxy down wlan0" + pair + " tcp/443 udp6/4500"},
      {{up}, "proxy update --old tcp/443 udp6/4500 --new tcp6/80"},
      {{up}, "proxy unmap" + pair},
      {{up}, "reset"},
      {{}, "ipsec add " + ipsec},
      {{"ipsec add " + ipsec}, "ipsec delete " + ipsec},
      {{}, "encap set 4500"},
      {{"encap set 4500"}, "encap unset 4500"},
      {{"encap set 4500"}, "encap pass-through 4500"},
      {{"encap set 4500"}, "encap drop 4500"},
      {{}, flow},
      {{flow}, flow},  // held already
      {{flow}, "lowlat flush"},
      {{up}, "ports"},
  };
  for (const auto& [held, command] : single_calls) {
    scenarios.push_back({command, make_calls(held), {make_call(command)}, 0});
  }
  // The pair is held already, which is forgiven, and the device, which is not.
  scenarios.push_back({up + " again", make_calls({up}), {make_call(up)}, -1});
  return scenarios;
}

}  // namespace torture

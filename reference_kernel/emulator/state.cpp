#include "reference_kernel/emulator/state.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include "reference_kernel/tavik_wlan_limits.h"

namespace tavik_wlan {
namespace {

/// -EEXIST when it is there already, -ENOSPC beyond the limit.
template <typename Entry>
Status add(std::set<Entry>& held, const Entry& entry, size_t limit, const char* is_there,
           const char* is_full) {
  if (held.contains(entry)) {
    return {-EEXIST, is_there};
  }
  if (held.size() == limit) {
    return {-ENOSPC, is_full};
  }
  held.insert(entry);
  return {};
}

}  // namespace

std::string to_text(const Tuples& tuples) {
  std::string text;
  for (const DatapathTuple& tuple : tuples) {
    text += (text.empty() ? "" : ", ") + tuple_text(tuple);
  }
  return text;
}

std::string to_text(const Device& device) {
  return std::to_string(device.selector) + ' ' + device.name;
}

std::string to_text(const Forwarding& forwarding) {
  return std::to_string(forwarding.selector) + ' ' + forwarding.from + ' ' + forwarding.to;
}

std::string to_text(const Encapsulation& encapsulation) {
  return std::to_string(encapsulation.port) + encapsulation.action;
}

std::string to_text(const Flow& flow) {
  return to_text(flow.source) + ' ' + std::to_string(flow.source_port) + ' ' +
         to_text(flow.destination) + ' ' + std::to_string(flow.destination_port);
}

Status State::add_tuples(const Tuples& tuples) {
  TupleSet added(tuples.begin(), tuples.end());
  std::erase_if(added, [&](const DatapathTuple& tuple) { return tuples_.contains(tuple); });
  if (tuples_.size() + added.size() > TAVIK_WLAN_MAX_TUPLES) {
    return {-ENOSPC, "too many tuples"};
  }
  tuples_.merge(added);
  return {};
}

Status State::delete_tuples(const Tuples& tuples) {
  const auto is_held = [&](const DatapathTuple& tuple) { return tuples_.contains(tuple); };
  if (!std::ranges::all_of(tuples, is_held)) {
    return {-ENOENT, "no such tuple"};
  }
  for (const DatapathTuple& tuple : tuples) {
    tuples_.erase(tuple);
  }
  return {};
}

Status State::set_device(const Device& device) {
  const auto [held, is_new] = devices_.try_emplace(device.selector, device.name);
  if (is_new) {
    return {};
  }
  return held->second == device.name ? Status{-EEXIST, "the device is set already"}
                                     : Status{-EBUSY, "another device is set"};
}

Status State::unset_device(const Device& device) {
  const auto held = devices_.find(device.selector);
  if (held == devices_.end() || held->second != device.name) {
    return {-ENOENT, "the device is not set"};
  }
  devices_.erase(held);
  return {};
}

Status State::add_forwarding(const Forwarding& forwarding) {
  return add(forwardings_, forwarding, TAVIK_WLAN_MAX_FORWARDINGS, "the forwarding exists already",
             "too many forwardings");
}

Status State::delete_forwarding(const Forwarding& forwarding) {
  return forwardings_.erase(forwarding) == 1 ? Status{} : Status{-ENOENT, "no such forwarding"};
}

Status State::set_encapsulation(const Encapsulation& encapsulation) {
  encapsulation_ = encapsulation;
  return {};
}

Status State::unset_encapsulation(const Encapsulation& encapsulation) {
  Status status = set_action(encapsulation, "");
  if (status.ok()) {
    encapsulation_.reset();
  }
  return status;
}

Status State::pass_encapsulation_through(const Encapsulation& encapsulation) {
  return set_action(encapsulation, " pass-through");
}

Status State::drop_encapsulation(const Encapsulation& encapsulation) {
  return set_action(encapsulation, " drop");
}

Status State::set_action(const Encapsulation& encapsulation, const char* action) {
  if (!encapsulation_ || encapsulation_->port != encapsulation.port) {
    return {-ENOENT, "the encapsulation port is not set"};
  }
  encapsulation_->action = action;
  return {};
}

Status State::add_flow(const Flow& flow) {
  return add(flows_, flow, TAVIK_WLAN_MAX_FLOWS, "the flow exists already", "too many flows");
}

std::string State::text() const {
  std::string text;
  for (const DatapathTuple& tuple : tuples_) {
    text += "tuple " + tuple_text(tuple) + '\n';
  }
  for (const auto& [selector, name] : devices_) {
    text += "device " + to_text(Device{selector, name}) + '\n';
  }
  for (const Forwarding& forwarding : forwardings_) {
    text += "forward " + to_text(forwarding) + '\n';
  }
  if (encapsulation_) {
    text += "encap " + to_text(*encapsulation_) + '\n';
  }
  for (const Flow& flow : flows_) {
    text += "lowlat " + to_text(flow) + '\n';
  }
  return text;
}

}  // namespace tavik_wlan

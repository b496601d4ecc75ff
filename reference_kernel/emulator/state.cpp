#include "reference_kernel/emulator/state.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include "reference_kernel/tavik_wlan_limits.h"

namespace tavik_wlan {
namespace {

const char* to_text(EncapsulationAction action) {
  switch (action) {
    case EncapsulationAction::kNone:
      return "";
    case EncapsulationAction::kPassThrough:
      return " pass-through";
    case EncapsulationAction::kDrop:
      return " drop";
  }
  return "";
}

/// -EEXIST when it is there already, -ENOSPC beyond the limit.
template <typename Entry>
Verdict add(std::set<Entry>& held, const Entry& entry, size_t limit, const char* is_there,
            const char* is_full) {
  if (held.contains(entry)) {
    return Refusal{-EEXIST, is_there};
  }
  if (held.size() == limit) {
    return Refusal{-ENOSPC, is_full};
  }
  held.insert(entry);
  return kAccepted;
}

}  // namespace

Verdict State::add_tuples(const std::vector<Tuple>& tuples) {
  std::set<Tuple> added(tuples.begin(), tuples.end());
  std::erase_if(added, [&](const Tuple& tuple) { return tuples_.contains(tuple); });
  if (tuples_.size() + added.size() > TAVIK_WLAN_MAX_TUPLES) {
    return Refusal{-ENOSPC, "too many tuples"};
  }
  tuples_.merge(added);
  return kAccepted;
}

Verdict State::delete_tuples(const std::vector<Tuple>& tuples) {
  const auto is_held = [&](const Tuple& tuple) { return tuples_.contains(tuple); };
  if (!std::all_of(tuples.begin(), tuples.end(), is_held)) {
    return Refusal{-ENOENT, "no such tuple"};
  }
  for (const Tuple& tuple : tuples) {
    tuples_.erase(tuple);
  }
  return kAccepted;
}

Verdict State::set_device(uint8_t selector, const std::string& name) {
  const auto [device, is_new] = devices_.try_emplace(selector, name);
  if (is_new) {
    return kAccepted;
  }
  return device->second == name ? Refusal{-EEXIST, "the device is set already"}
                                : Refusal{-EBUSY, "another device is set"};
}

Verdict State::unset_device(uint8_t selector, const std::string& name) {
  const auto device = devices_.find(selector);
  if (device == devices_.end() || device->second != name) {
    return Refusal{-ENOENT, "the device is not set"};
  }
  devices_.erase(device);
  return kAccepted;
}

Verdict State::add_forwarding(const Forwarding& forwarding) {
  return add(forwardings_, forwarding, TAVIK_WLAN_MAX_FORWARDINGS, "the forwarding exists already",
             "too many forwardings");
}

Verdict State::delete_forwarding(const Forwarding& forwarding) {
  return forwardings_.erase(forwarding) == 1 ? kAccepted : Refusal{-ENOENT, "no such forwarding"};
}

Verdict State::set_encapsulation_port(uint16_t port) {
  encapsulation_ = {.port = port, .action = EncapsulationAction::kNone};
  return kAccepted;
}

Verdict State::unset_encapsulation_port(uint16_t port) {
  const Verdict verdict = set_encapsulation_action(port, EncapsulationAction::kNone);
  if (!verdict) {
    encapsulation_.reset();
  }
  return verdict;
}

Verdict State::set_encapsulation_action(uint16_t port, EncapsulationAction action) {
  if (!encapsulation_ || encapsulation_->port != port) {
    return Refusal{-ENOENT, "the encapsulation port is not set"};
  }
  encapsulation_->action = action;
  return kAccepted;
}

Verdict State::add_flow(const Flow& flow) {
  return add(flows_, flow, TAVIK_WLAN_MAX_FLOWS, "the flow exists already", "too many flows");
}

Verdict State::flush_flows() {
  flows_.clear();
  return kAccepted;
}

Verdict State::reset() {
  *this = State();
  return kAccepted;
}

std::string State::text() const {
  std::string text;
  for (const Tuple& tuple : tuples_) {
    text += "tuple " + tavik_wlan::to_text(tuple) + '\n';
  }
  for (const auto& [selector, name] : devices_) {
    text += "device " + std::to_string(selector) + ' ' + name + '\n';
  }
  for (const Forwarding& forwarding : forwardings_) {
    text += "forward " + tavik_wlan::to_text(forwarding) + '\n';
  }
  if (encapsulation_) {
    text +=
        "encap " + std::to_string(encapsulation_->port) + to_text(encapsulation_->action) + '\n';
  }
  for (const Flow& flow : flows_) {
    text += "lowlat " + tavik_wlan::to_text(flow) + '\n';
  }
  return text;
}

}  // namespace tavik_wlan

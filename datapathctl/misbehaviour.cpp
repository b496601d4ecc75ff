#include "datapathctl/misbehaviour.h"

#include <linux/genetlink.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "datapathctl/values.h"

namespace datapathctl {

using tavik_wlan::Faults;

namespace {

/// A name such as EPERM, or a number.
int parse_errno(std::string_view text) {
  constexpr int kMaxErrno = 4095;
  // Second names of a number, which strerrorname_np() does not give.
  constexpr std::pair<std::string_view, int> kAliases[] = {
      {"EWOULDBLOCK", EWOULDBLOCK},
      {"EDEADLOCK", EDEADLOCK},
      {"ENOTSUP", ENOTSUP},
      {"EOPNOTSUPP", EOPNOTSUPP},
  };
  for (const auto& [alias, error] : kAliases) {
    if (alias == text) {
      return error;
    }
  }
  for (int error = 1; error <= kMaxErrno; ++error) {
    const char* name = strerrorname_np(error);
    if (name != nullptr && name == text) {
      return error;
    }
  }
  return static_cast<int>(parse_number(text, kMaxErrno, "errno", 1));
}

void set_refusal(Faults& faults, std::string_view value) {
  const size_t colon = value.find(':');
  if (colon == std::string_view::npos) {
    throw UsageError("bad misbehaviour: it reads refuse=N:ERRNO");
  }
  faults.refuse_nth = parse_number(value.substr(0, colon), UINT32_MAX, "refuse", 1);
  faults.refuse_error = parse_errno(value.substr(colon + 1));
}

void set_family_id(Faults& faults, std::string_view value) {
  const uint32_t id = parse_number(value, UINT16_MAX, "family-id");
  if (id <= GENL_ID_CTRL) {
    throw UsageError("bad family-id: those up to " + std::to_string(GENL_ID_CTRL) + " are taken");
  }
  faults.family_id = static_cast<uint16_t>(id);
}

constexpr struct Word {
  std::string_view name;
  const char* value;  // what its value is; null: it has none
  const char* help;
  void (*apply)(Faults& faults, std::string_view value);
} kWords[] = {
    {"none", nullptr, "behave well again", [](Faults& m, std::string_view) { m = {}; }},
    {"silent", nullptr, "give no answer", [](Faults& m, std::string_view) { m.silent = true; }},
    {"delay", "MS", "answer so many milliseconds late",
     [](Faults& m, std::string_view v) { m.delay_ms = parse_number(v, 3600000, "delay"); }},
    {"truncate", "BYTES", "cut each datagram to so many bytes",
     [](Faults& m, std::string_view v) { m.truncate = parse_number(v, 65536, "truncate", 1); }},
    {"garbage", nullptr, "answer with random bytes",
     [](Faults& m, std::string_view) { m.garbage = true; }},
    {"stale", nullptr, "answer an earlier request first",
     [](Faults& m, std::string_view) { m.stale = true; }},
    {"refuse", "N:ERRNO", "refuse the N-th request from now on, with EPERM or so", set_refusal},
    {"interrupt", "DUMPS", "mark so many dumps as interrupted",
     [](Faults& m, std::string_view v) {
       m.interrupted_dumps = parse_number(v, UINT32_MAX, "interrupt");
     }},
    {"family-id", "ID", "give the family another id", set_family_id},
    {"absent", nullptr, "lose the family", [](Faults& m, std::string_view) { m.absent = true; }},
};

}  // namespace

std::vector<Usage> misbehaviour_usages() {
  std::vector<Usage> usages;
  for (const Word& word : kWords) {
    std::string form(word.name);
    if (word.value != nullptr) {
      form.append("=").append(word.value);
    }
    usages.push_back({form, word.help});
  }
  return usages;
}

Faults parse_misbehaviour(const std::vector<std::string>& words) {
  Faults faults;
  for (const std::string& word : words) {
    const size_t equals = word.find('=');
    const std::string_view name = std::string_view(word).substr(0, equals);
    const Word* known = nullptr;
    for (const Word& candidate : kWords) {
      if (candidate.name == name && (candidate.value != nullptr) == (equals != std::string::npos)) {
        known = &candidate;
      }
    }
    if (known == nullptr) {
      throw UsageError("bad misbehaviour '" + word + "'");
    }
    known->apply(faults, known->value != nullptr ? std::string_view(word).substr(equals + 1) : "");
  }
  return faults;
}

}  // namespace datapathctl

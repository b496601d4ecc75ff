#include "datapathctl/faults.h"

#include <linux/genetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

#include "datapathctl/values.h"

namespace datapathctl {
namespace {

/// A name such as EPERM, or a number.
int parse_errno(std::string_view text) {
  constexpr int kMaxErrno = 4095;
  // Second names of a number, which strerrorname_np() does not give.
  constexpr std::pair<std::string_view, int> kAliases[] = {
      {"EWOULDBLOCK", EWOULDBLOCK}, {"EDEADLOCK", EDEADLOCK}, {"ENOTSUP", ENOTSUP}};
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
    throw CLI::ValidationError("bad misbehaviour: it reads refuse=N:ERRNO");
  }
  faults.refuse_nth = parse_number(value.substr(0, colon), UINT32_MAX, "refuse", 1);
  faults.refuse_error = parse_errno(value.substr(colon + 1));
}

/// Ids up to the controller's are taken.
void set_family_id(Faults& faults, std::string_view value) {
  faults.family_id =
      static_cast<uint16_t>(parse_number(value, UINT16_MAX, "family-id", GENL_ID_CTRL + 1));
}

constexpr struct Word {
  std::string_view name;   // with '=' where a value follows
  std::string_view value;  // what it is
  void (*apply)(Faults& faults, std::string_view value);
} kWords[] = {
    {"none", "", [](Faults& f, auto) { f = {}; }},
    {"silent", "", [](Faults& f, auto) { f.silent = true; }},
    {"delay=", "MS", [](Faults& f, auto v) { f.delay_ms = parse_number(v, 3600000, "delay"); }},
    {"truncate=", "BYTES",
     [](Faults& f, auto v) { f.truncate = parse_number(v, 65536, "truncate", 1); }},
    {"garbage", "", [](Faults& f, auto) { f.garbage = true; }},
    {"stale", "", [](Faults& f, auto) { f.stale = true; }},
    {"refuse=", "N:ERRNO", set_refusal},
    {"interrupt=", "DUMPS",
     [](Faults& f, auto v) { f.interrupted_dumps = parse_number(v, UINT32_MAX, "interrupt"); }},
    {"family-id=", "ID", set_family_id},
    {"absent", "", [](Faults& f, auto) { f.absent = true; }},
};

}  // namespace

std::string fault_words() {
  std::string text;
  for (const Word& word : kWords) {
    text.append(text.empty() ? "" : ", ").append(word.name).append(word.value);
  }
  return text;
}

Faults parse_faults(const std::vector<std::string>& words) {
  Faults faults;
  for (const std::string_view word : words) {
    // Up to a '=' and with it.
    const std::string_view name = word.substr(0, std::min(word.find('='), word.size() - 1) + 1);
    const auto* known = std::ranges::find(kWords, name, &Word::name);
    if (known == std::end(kWords)) {
      throw CLI::ValidationError("bad misbehaviour '" + std::string(word) + "'");
    }
    known->apply(faults, word.substr(name.size()));
  }
  return faults;
}

}  // namespace datapathctl

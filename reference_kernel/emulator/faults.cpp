#include "reference_kernel/emulator/faults.h"

#include <linux/genetlink.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace tavik_wlan {
namespace {

/// A number from min to max, in decimal.
uint32_t parse_number(std::string_view text, uint32_t min, uint32_t max) {
  uint32_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || value < min || value > max) {
    throw std::invalid_argument("'" + std::string(text) + "' is not a number from " +
                                std::to_string(min) + " to " + std::to_string(max));
  }
  return value;
}

/// A name such as EPERM, or a number.
int parse_errno(std::string_view text) {
  constexpr int kMaxErrno = 4095;
  for (int error = 1; error <= kMaxErrno; ++error) {
    const char* name = strerrorname_np(error);
    if (name != nullptr && name == text) {
      return error;
    }
  }
  return static_cast<int>(parse_number(text, 1, kMaxErrno));
}

void set_refusal(Faults& faults, std::string_view value) {
  const size_t colon = value.find(':');
  if (colon == std::string_view::npos) {
    throw std::invalid_argument("there is no ':'");
  }
  faults.refuse_nth = parse_number(value.substr(0, colon), 1, UINT32_MAX);
  faults.refuse_error = parse_errno(value.substr(colon + 1));
}

/// Ids up to the controller's are taken, and so are those of Control.
void set_family_id(Faults& faults, std::string_view value) {
  faults.family_id = static_cast<uint16_t>(parse_number(value, GENL_ID_CTRL + 1, 0xfeff));
}

constexpr struct Word {
  std::string_view name;   // with '=' where a value follows
  std::string_view value;  // what it is
  void (*apply)(Faults& faults, std::string_view value);
} kWords[] = {
    {"none", "", [](Faults& f, auto) { f = {}; }},
    {"silent", "", [](Faults& f, auto) { f.silent = true; }},
    {"delay=", "MS", [](Faults& f, auto v) { f.delay_ms = parse_number(v, 0, 3600000); }},
    {"truncate=", "BYTES", [](Faults& f, auto v) { f.truncate = parse_number(v, 1, 65536); }},
    {"garbage", "", [](Faults& f, auto) { f.garbage = true; }},
    {"stale", "", [](Faults& f, auto) { f.stale = true; }},
    {"refuse=", "N:ERRNO", set_refusal},
    {"interrupt=", "DUMPS",
     [](Faults& f, auto v) { f.interrupted_dumps = parse_number(v, 0, UINT32_MAX); }},
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

Faults parse_faults(const std::string& words) {
  Faults faults;
  std::istringstream stream(words);
  for (std::string word; stream >> word;) {
    const size_t value = std::min(word.find('='), word.size() - 1) + 1;  // where it starts
    const auto* known = std::ranges::find(kWords, word.substr(0, value), &Word::name);
    try {
      if (known == std::end(kWords)) {
        throw std::invalid_argument("one of " + fault_words());
      }
      known->apply(faults, std::string_view(word).substr(value));
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument("bad misbehaviour '" + word + "': " + error.what());
    }
  }
  return faults;
}

}  // namespace tavik_wlan

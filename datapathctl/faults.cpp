#include "datapathctl/faults.h"

#include <CLI/Error.hpp>
#include <CLI/StringTools.hpp>
#include <stdexcept>

namespace datapathctl {

Faults parse_faults(const std::vector<std::string>& words) {
  Faults faults = CLI::detail::join(words, " ");
  try {
    tavik_wlan::parse_faults(faults);
  } catch (const std::invalid_argument& error) {
    throw CLI::ValidationError(error.what());
  }
  return faults;
}

}  // namespace datapathctl

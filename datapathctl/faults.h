// The emulator's fault injection as a person writes it.
#pragma once

#include <string>
#include <vector>

#include "reference_kernel/emulator/faults.h"

namespace datapathctl {

using tavik_wlan::fault_words;

/// Words that tavik_wlan::parse_faults() knows, with blanks between them.
using Faults = std::string;

/// Throws CLI::ValidationError on any other word.
Faults parse_faults(const std::vector<std::string>& words);

}  // namespace datapathctl

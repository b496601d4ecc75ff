// The emulator's fault injection as a person writes it.
#ifndef DATAPATHCTL_FAULTS_H_
#define DATAPATHCTL_FAULTS_H_

#include <string>
#include <vector>

#include "reference_kernel/emulator/emulator.h"

namespace datapathctl {

using tavik_wlan::Faults;

/// Every word there is: "none, silent, delay=MS" and so on.
std::string fault_words();

/// The sum of words such as "silent", "delay=20" or "refuse=2:EPERM"; "none" is the empty sum.
/// Throws CLI::ValidationError on any other word.
Faults parse_faults(const std::vector<std::string>& words);

}  // namespace datapathctl

#endif  // DATAPATHCTL_FAULTS_H_

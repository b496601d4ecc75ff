// The emulator's misbehaviour as a person writes it.
#ifndef DATAPATHCTL_MISBEHAVIOUR_H_
#define DATAPATHCTL_MISBEHAVIOUR_H_

#include <string>
#include <vector>

#include "datapathctl/usage.h"
#include "reference_kernel/emulator/emulator.h"

namespace datapathctl {

/// Every word, such as "delay=MS", and what it does.
std::vector<Usage> misbehaviour_usages();

/// The sum of words such as "silent", "delay=20" or "refuse=2:EPERM"; "none" is the empty sum.
/// Throws UsageError on any other word.
tavik_wlan::Faults parse_misbehaviour(const std::vector<std::string>& words);

}  // namespace datapathctl

#endif  // DATAPATHCTL_MISBEHAVIOUR_H_

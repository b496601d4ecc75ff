// How this program reaches the data-path library: it loads the shared one or, where it is static
// itself, has it inside.
#pragma once

#include "datapathctl/command.h"

namespace datapathctl {

/// Makes the library ready for find_function(). It fails when it cannot be had, and when the
/// settings ask for what it lacks here.
Result load_library(const Settings& settings);

/// Finds an exported function of the library by its name.
Result find_function(const char* name, void** address);

}  // namespace datapathctl

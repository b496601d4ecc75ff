// What may stand on the command line, told from its definition: for help and for manual pages.
#ifndef DATAPATHCTL_USAGE_H_
#define DATAPATHCTL_USAGE_H_

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace datapathctl {

/// One thing that may be written, such as "--socket PATH" or "encap set PORT", and what it means.
struct Usage {
  std::string form;
  std::string help;
};

/// The commands and objects of a command line, or the verbs of an object, hidden ones aside.
std::vector<const CLI::App*> visible_commands(const CLI::App& app);

/// The options of a command line that stand before its command.
std::vector<Usage> option_usages(const CLI::App& app);

/// The commands of a command line, hidden ones aside, with their arguments and options; what may be
/// left out is in brackets.
std::vector<Usage> command_usages(const CLI::App& app);

/// Usages as text: each in a line of its own, with what it means in a further one.
std::string to_text(const std::vector<Usage>& usages);

/// Whether an option takes all values up to the next option, or an argument all that follow.
bool takes_list(const CLI::Option& option);

/// The name of the value that an option or argument takes, such as PATH; empty where it takes none.
std::string value_name(const CLI::Option& option);

}  // namespace datapathctl

#endif  // DATAPATHCTL_USAGE_H_

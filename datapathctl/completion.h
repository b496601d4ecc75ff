// What a shell offers when a person presses Tab.
#ifndef DATAPATHCTL_COMPLETION_H_
#define DATAPATHCTL_COMPLETION_H_

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace datapathctl {

/// Completes the last of the words, perhaps an empty one, that stand behind the tool's name on a
/// command line. Gives lines for a shell's script: a word that may stand there, a tab, and what it
/// means. A word that ends in '=' or '/' goes on. The line kFileCompletion asks for names of files.
std::vector<std::string> complete(const CLI::App& app, const std::vector<std::string>& words);

inline constexpr char kFileCompletion[] = ":files";

}  // namespace datapathctl

#endif  // DATAPATHCTL_COMPLETION_H_

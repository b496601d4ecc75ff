// Words to commands.
#pragma once

#include <CLI/App.hpp>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "datapathctl/command.h"

namespace datapathctl {

/// Parses any number of commands; runs none.
class Parser {
 public:
  /// Of a whole command line, whose options go to the settings; null: of the lines of a batch.
  explicit Parser(Settings* settings);

  /// Fills the command, or tells in one line what is wrong; the command's operation is set as soon
  /// as it is known.
  Result parse(std::vector<std::string> words, Command* command);

 private:
  // Each takes its part off the words.
  void take_options(std::vector<std::string>* words);
  Result take_operation(std::vector<std::string>* words);
  Result take_arguments(std::vector<std::string>* words);

  Settings* settings_;
  CLI::App options_;   // wherever they stand
  Command command_{};  // which the parts fill
  // Of the operations that have been met.
  std::map<const Operation*, std::unique_ptr<CLI::App>> arguments_;
};

}  // namespace datapathctl

// Words to commands.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "datapathctl/command.h"

namespace CLI {
class App;
}

namespace datapathctl {

/// Parses any number of commands; runs none.
class Parser {
 public:
  /// Of a whole command line, whose options go to the settings; null: of the lines of a batch.
  explicit Parser(Settings* settings);
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;
  ~Parser();

  /// Fills the command, or tells in one line what is wrong; the command's operation is set as soon
  /// as it is known.
  Result parse(std::vector<std::string> words, Command* command);

 private:
  // Each takes its part off the words.
  Result take_options(std::vector<std::string>* words);
  Result take_operation(std::vector<std::string>* words);
  Result take_arguments(std::vector<std::string>* words);

  CLI::App& arguments_of(const Operation& operation);
  std::string help_on(const std::string& topic);

  Settings* settings_;
  Command command_;                    // which the parts of the parser fill
  std::unique_ptr<CLI::App> options_;  // before the object
  // Of operations, once they are needed.
  std::map<const Operation*, std::unique_ptr<CLI::App>> arguments_;
};

}  // namespace datapathctl

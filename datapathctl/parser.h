// Words to commands.
#ifndef DATAPATHCTL_PARSER_H_
#define DATAPATHCTL_PARSER_H_

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "datapathctl/command.h"

namespace datapathctl {

/// Parses any number of commands; runs none.
class Parser {
 public:
  /// Of a whole command line, whose options go to the settings; null: of the lines of a batch.
  explicit Parser(Settings* settings);
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;

  /// Fills the command, or tells in one line what is wrong.
  Result parse(std::vector<std::string> words, Command* command);

 private:
  void add(const Operation& operation);

  CLI::App app_;
  Command command_;  // which the parts of the parser fill
  Settings* settings_;
};

}  // namespace datapathctl

#endif  // DATAPATHCTL_PARSER_H_

#include "datapathctl/usage.h"

namespace datapathctl {
namespace {

/// An option as it is written, such as "--socket PATH", or an argument.
std::string form_of(const CLI::Option& option) {
  std::string form = value_name(option);
  if (takes_list(option)) {
    form += "...";
  }
  if (option.get_positional()) {
    return form;
  }
  const std::string name = "--" + option.get_lnames().front();
  return form.empty() ? name : name + " " + form;
}

std::string form_of(const CLI::App& command, const std::string& name) {
  std::string form = name;
  for (const CLI::Option* option : command.get_options()) {
    if (option == command.get_help_ptr()) {
      continue;
    }
    form.append(option->get_required() ? " " : " [");
    form.append(form_of(*option));
    form.append(option->get_required() ? "" : "]");
  }
  return form;
}

void append_commands(const CLI::App& app, const std::string& prefix, std::vector<Usage>* usages) {
  for (const CLI::App* command : visible_commands(app)) {
    const std::string name = prefix + command->get_name();
    if (visible_commands(*command).empty()) {
      usages->push_back({form_of(*command, name), command->get_description()});
    } else {
      append_commands(*command, name + " ", usages);
    }
  }
}

}  // namespace

bool takes_list(const CLI::Option& option) {
  return option.get_items_expected_max() > 1 && option.get_allow_extra_args();
}

std::string value_name(const CLI::Option& option) {
  if (option.get_positional()) {
    return option.get_name();
  }
  const std::string name = option.get_type_name();
  return option.get_items_expected_max() == 0 ? "" : name.substr(0, name.find(':'));
}

std::vector<const CLI::App*> visible_commands(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App* each) { return !each->get_group().empty(); });
}

std::vector<Usage> option_usages(const CLI::App& app) {
  std::vector<Usage> usages;
  for (const CLI::Option* option : app.get_options()) {
    usages.push_back({form_of(*option), option->get_description()});
  }
  return usages;
}

std::vector<Usage> command_usages(const CLI::App& app) {
  std::vector<Usage> usages;
  append_commands(app, "", &usages);
  return usages;
}

std::string to_text(const std::vector<Usage>& usages) {
  std::string text;
  for (const Usage& usage : usages) {
    text += "  " + usage.form + "\n      " + usage.help + "\n";
  }
  return text;
}

}  // namespace datapathctl

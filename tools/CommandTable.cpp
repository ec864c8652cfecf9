#include "tools/CommandTable.h"

#include <algorithm>
#include <cstring>

#include <boost/program_options/errors.hpp>
#include <boost/program_options/parsers.hpp>
#include <boost/program_options/positional_options.hpp>

#include "bringup/Error.h"
#include "tools/Help.h"
#include "tools/Session.h"
#include "tools/commands/Commands.h"
#include "tools/output/Output.h"

namespace po = boost::program_options;

namespace kvx::cli {
namespace {

/// Commands take long options only, spelt out: "-1" is then an argument (and a bad number), and
/// "--ver" is not taken for "--verify".
constexpr int kCommandStyle = po::command_line_style::allow_long |
                              po::command_line_style::long_allow_adjacent |
                              po::command_line_style::long_allow_next;

}  // namespace

std::string CommandDefinition::usage() const {
  return std::string("kvx-ta ") + name + (*synopsis != '\0' ? " " : "") + synopsis;
}

po::options_description CommandDefinition::options(bool hidden) const {
  po::options_description result("Options");
  result.add_options()("help", "describe this command");
  for (const Flag& flag : flags) {
    if (flag.description == nullptr && !hidden) continue;
    if (flag.valueName != nullptr) {
      result.add_options()(flag.name, po::value<std::string>()->value_name(flag.valueName),
                           flag.description != nullptr ? flag.description : "");
    } else {
      result.add_options()(flag.name, flag.description != nullptr ? flag.description : "");
    }
  }
  return result;
}

Arguments CommandDefinition::parse(const std::vector<std::string>& words,
                                   const bringup::ElfSymbols* symbols) const {
  po::options_description all;
  all.add(options(true));
  po::positional_options_description positional;
  for (const auto* names : {&required, &optional}) {
    for (const char* field : *names) {
      const bool takesTheRest = rest && names == &optional && field == optional.back();
      if (takesTheRest) {
        all.add_options()(field, po::value<std::vector<std::string>>());
        positional.add(field, -1);
      } else {
        all.add_options()(field, po::value<std::string>());
        positional.add(field, 1);
      }
    }
  }
  const std::string hint = " (usage: " + usage() + ")";
  // Counted first: the parser's time grows with the square of the words, and no valid call has
  // more than its fields, two words for each option and --help.
  if (!rest && words.size() > required.size() + optional.size() + 2 * flags.size() + 1) {
    throw bringup::usageError(std::string(name) + ": too many arguments" + hint);
  }
  po::variables_map values;
  try {
    po::store(po::command_line_parser(words).options(all).positional(positional).style(kCommandStyle).run(),
              values);
  } catch (const po::too_many_positional_options_error&) {
    throw bringup::usageError(std::string(name) + ": too many arguments" + hint);
  } catch (const po::error& failure) {
    throw bringup::usageError(std::string(name) + ": " + failure.what() + hint);
  }
  for (const char* field : required) {
    if (values.count(field) == 0) throw bringup::usageError(std::string(name) + ": missing " + field + hint);
  }
  return Arguments(std::move(values), symbols);
}

bool commandRunsIn(const CommandDefinition& definition, CommandContext context) {
  switch (context) {
    case CommandContext::kCommandLine:
      return true;
    case CommandContext::kScript:
      return definition.scriptable;
    case CommandContext::kShell:
      return definition.scriptable || std::strcmp(definition.name, "script") == 0;
  }
  return false;
}

const std::vector<CommandDefinition>& commandTable() {
  static const std::vector<CommandDefinition> table = [] {
    std::vector<CommandDefinition> all;
    for (auto family : {accessCommands, transferCommands, imageCommands, sessionCommands}) {
      for (CommandDefinition& definition : family()) all.push_back(std::move(definition));
    }
    return all;
  }();
  return table;
}

const CommandDefinition* findCommand(const std::string& name) {
  const auto& table = commandTable();
  const auto definition =
      std::find_if(table.begin(), table.end(),
                   [&name](const CommandDefinition& candidate) { return name == candidate.name; });
  return definition == table.end() ? nullptr : &*definition;
}

Action parseCommand(const std::string& name, const std::vector<std::string>& arguments,
                    CommandContext context, const bringup::ElfSymbols* symbols) {
  const CommandDefinition* definition = findCommand(name);
  if (definition == nullptr) throw bringup::usageError(help::unknownCommand(name));
  if (!commandRunsIn(*definition, context)) {
    throw bringup::usageError("'" + name + "' cannot run inside " +
                              (context == CommandContext::kShell ? "the shell" : "a script"));
  }
  if (std::any_of(arguments.begin(), arguments.end(),
                  [](const std::string& word) { return word == "--help" || word == "-h"; })) {
    return [definition](Session& session) { session.output().text(help::command(*definition)); };
  }
  return definition->build(definition->parse(arguments, symbols));
}

}  // namespace kvx::cli

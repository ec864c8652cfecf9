#include "tools/CommandLine.h"

#include <boost/program_options.hpp>

#include "tools/UsageError.h"

namespace po = boost::program_options;

namespace kvx::cli {
namespace {

const char* const kCommandKey = "command";
const char* const kArgumentsKey = "arguments";

}  // namespace

po::options_description CommandLine::options() {
  po::options_description options("Options");
  // clang-format off
  options.add_options()
      ("server", po::value<std::string>()->value_name("HOST:PORT"),
       "the target agent to use (HOST: name, IPv4, or [IPv6]); without it kvx-ta starts its own "
       "kvx-agent-sim on a free loopback port for the run")
      ("log-config", po::value<std::string>()->value_name("FILE"),
       "log4cxx configuration (.xml: DOMConfigurator, else PropertyConfigurator); without it "
       "LOG4CXX_CONFIGURATION is honoured, else warnings go to stderr")
      ("help,h", "describe the program ('kvx-ta COMMAND --help' describes a command)")
      ("version", "print the version");
  // clang-format on
  return options;
}

namespace {

/// Once the command's name is seen, every remaining token goes to the command as it is.
std::vector<po::option> stopAtCommand(std::vector<std::string>& tokens) {
  std::vector<po::option> result;
  if (tokens.empty() || tokens.front().empty() || tokens.front().front() == '-') {
    return result;
  }
  for (const std::string& token : tokens) {
    po::option positional;
    positional.value.push_back(token);
    positional.original_tokens.push_back(token);
    result.push_back(positional);
  }
  tokens.clear();
  return result;
}

}  // namespace

Invocation CommandLine::parse(int argc, const char* const argv[]) {
  po::options_description hidden;
  hidden.add_options()(kCommandKey, po::value<std::string>());
  hidden.add_options()(kArgumentsKey, po::value<std::vector<std::string>>());
  po::options_description all;
  all.add(options()).add(hidden);
  po::positional_options_description positional;
  positional.add(kCommandKey, 1).add(kArgumentsKey, -1);

  po::variables_map values;
  try {
    po::store(po::command_line_parser(argc, argv)
                  .options(all)
                  .positional(positional)
                  .style(po::command_line_style::unix_style & ~po::command_line_style::allow_guessing)
                  .extra_style_parser(stopAtCommand)
                  .run(),
              values);
  } catch (const po::error& e) {
    throw UsageError(std::string(e.what()) + " (try 'kvx-ta --help')");
  }

  Invocation invocation;
  invocation.help = values.count("help") != 0;
  invocation.version = values.count("version") != 0;
  if (values.count("server") != 0) {
    const std::string server = values["server"].as<std::string>();
    std::string why;
    invocation.server = common::Endpoint::parse(server, why);
    if (!invocation.server) {
      throw UsageError("invalid server '" + server + "' (" + why + ")");
    }
  }
  if (values.count("log-config") != 0) {
    invocation.logConfig = values["log-config"].as<std::string>();
    if (invocation.logConfig.empty()) {
      throw UsageError("invalid log configuration '' (a file name)");
    }
  }
  if (values.count(kCommandKey) != 0) {
    invocation.command = values[kCommandKey].as<std::string>();
  }
  if (values.count(kArgumentsKey) != 0) {
    invocation.arguments = values[kArgumentsKey].as<std::vector<std::string>>();
  }
  return invocation;
}

}  // namespace kvx::cli

#include "tools/CommandLine.h"

#include <algorithm>
#include <cstdlib>

#include <boost/program_options.hpp>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "common/AgentTimeout.h"
#include "tools/CommandTable.h"

namespace po = boost::program_options;

namespace kvx::cli {
namespace {

/// Where kvx-agent-sim -- COMMAND says its agent listens, as HOST:PORT.
const char* const kServerVariable = "KVX_AGENT_SERVER";
/// The firmware's ELF file, when --elf does not name one.
const char* const kElfVariable = "KVX_TA_ELF";

/// The option's name in `token`: up to an '=' that gives its value.
std::string optionName(const std::string& token) { return token.substr(0, token.find('=')); }

/// Whether `definition` has an option called `name` ("--out", "-h").
bool commandTakes(const CommandDefinition* definition, const std::string& name) {
  if (name == "-h" || name == "--help") return true;
  return definition != nullptr &&
         std::any_of(definition->flags.begin(), definition->flags.end(),
                     [&](const Flag& flag) { return name == std::string("--") + flag.name; });
}

}  // namespace

po::options_description CommandLine::options() {
  po::options_description options("Options");
  // clang-format off
  options.add_options()
      ("server", po::value<std::string>()->value_name("HOST:PORT"),
       "the target agent to use (HOST: name, IPv4, or [IPv6]; default: KVX_AGENT_SERVER); without "
       "either, kvx-ta starts its own kvx-agent-sim on a free loopback port for the run")
      ("sim-option", po::value<std::vector<std::string>>()->value_name("OPT"),
       "an option for the kvx-agent-sim that kvx-ta starts, e.g. --sim-option=--deny=0x100:16 "
       "(repeatable)")
      ("timeout", po::value<std::string>()->value_name("MS"),
       "how long each call to the agent may take, in milliseconds (sets TA_AGENT_TIMEOUT_MS; "
       "default 5000)")
      ("json", "print results and failures as one JSON object each")
      ("quiet,q", "leave out informational lines: the embedded simulator, transfer summaries")
      ("progress", "show the progress of long transfers even when stderr is not a terminal")
      ("force", "allow transfers larger than 256 MiB")
      ("jobs", po::value<std::string>()->value_name("N"),
       "split dump, load, verify, fill, crc32 and search over N worker processes, each with an agent "
       "session of its own (default: 4 from 64 KiB on against an agent on another machine, "
       "else 1)")
      ("elf", po::value<std::string>()->value_name("FILE"),
       "the firmware's ELF file: any address may then be written as SYMBOL or SYMBOL+OFFSET (or set "
       "KVX_TA_ELF)")
      ("verbose", "show where a failure came from, the plug-in's source locations included")
      ("trace", "show every call of the agent library: its arguments, status and time, a line each on "
       "stderr (a JSON object each with --json)")
      ("log-config", po::value<std::string>()->value_name("FILE"),
       "log4cxx configuration (.xml: DOMConfigurator, else PropertyConfigurator); without it "
       "LOG4CXX_CONFIGURATION is honoured, else warnings go to stderr")
      ("help,h", "describe the program ('kvx-ta help COMMAND' describes a command)")
      ("version", "print the version");
  // clang-format on
  return options;
}

Invocation CommandLine::parse(int argc, const char* const argv[]) {
  // --worker is how kvx-ta starts its own workers; it is no option for people.
  po::options_description known = options();
  known.add_options()("worker", "");
  Invocation invocation;
  const CommandDefinition* definition = nullptr;
  // The command's name is the first word that is neither an option nor an option's value.
  std::vector<std::string> global;
  for (int i = 1; i < argc; ++i) {
    const std::string token = argv[i];
    const std::string name = optionName(token);
    const bool option = token.size() > 1 && token[0] == '-';
    if (!option && invocation.command.empty()) {
      invocation.command = token;
      definition = findCommand(token);
      continue;
    }
    if (!option || (!invocation.command.empty() && commandTakes(definition, name))) {
      invocation.arguments.push_back(token);
      continue;
    }
    // Long options are looked up by name, short ones with their dash ("-q").
    const po::option_description* description =
        known.find_nothrow(name.rfind("--", 0) == 0 ? name.substr(2) : name, false);
    if (description == nullptr && !invocation.command.empty()) {
      invocation.arguments.push_back(token);  // the command's to refuse
      continue;
    }
    global.push_back(token);
    const bool takesValue = description != nullptr && description->semantic()->max_tokens() > 0;
    if (takesValue && token.find('=') == std::string::npos && i + 1 < argc) global.push_back(argv[++i]);
  }

  po::variables_map values;
  try {
    po::store(po::command_line_parser(global)
                  .options(known)
                  .style(po::command_line_style::unix_style & ~po::command_line_style::allow_guessing)
                  .run(),
              values);
  } catch (const po::error& e) {
    throw bringup::usageError(std::string(e.what()) + " (try 'kvx-ta --help')");
  }
  invocation.help = values.count("help") != 0;
  invocation.version = values.count("version") != 0;
  invocation.output.json = values.count("json") != 0;
  invocation.output.quiet = values.count("quiet") != 0;
  invocation.output.verbose = values.count("verbose") != 0;
  invocation.output.progress = values.count("progress") != 0;
  invocation.force = values.count("force") != 0;
  invocation.trace = values.count("trace") != 0;
  if (values.count("worker") != 0) {
    invocation.output.worker = invocation.output.json = invocation.output.quiet = true;
  }
  if (values.count("jobs") != 0) {
    const uint64_t jobs = bringup::parseNumber(values["jobs"].as<std::string>(), "jobs");
    if (jobs == 0 || jobs > kMaxJobs) {
      throw bringup::usageError("invalid jobs '" + values["jobs"].as<std::string>() + "' (1 to " +
                                std::to_string(kMaxJobs) + ")");
    }
    invocation.jobs = static_cast<unsigned>(jobs);
  }
  // kvx-agent-sim -- kvx-ta ... names its agent in the environment.
  const char* inherited = std::getenv(kServerVariable);
  if (values.count("server") != 0 || (inherited != nullptr && *inherited != '\0')) {
    const bool given = values.count("server") != 0;
    const std::string server = given ? values["server"].as<std::string>() : inherited;
    std::string why;
    invocation.server = common::Endpoint::parse(server, why);
    if (!invocation.server) {
      throw bringup::usageError("invalid " + std::string(given ? "server" : kServerVariable) + " '" + server +
                                "' (" + why + ")");
    }
  }
  if (values.count("timeout") != 0) {
    const uint64_t timeout = bringup::parseNumber(values["timeout"].as<std::string>(), "timeout");
    if (timeout == 0 || timeout > common::kMaxAgentTimeoutMs) {
      throw bringup::usageError("invalid timeout '" + values["timeout"].as<std::string>() + "' (1 to " +
                                std::to_string(common::kMaxAgentTimeoutMs) + " ms)");
    }
    invocation.timeoutMs = static_cast<unsigned>(timeout);
  }
  if (values.count("sim-option") != 0) {
    if (values.count("server") != 0) {
      throw bringup::usageError(
          "--sim-option is for the simulator that kvx-ta starts, and --server names an agent "
          "instead");
    }
    invocation.simulatorOptions = values["sim-option"].as<std::vector<std::string>>();
  }
  const char* elf = std::getenv(kElfVariable);
  if (values.count("elf") != 0 || (elf != nullptr && *elf != '\0')) {
    invocation.elf = values.count("elf") != 0 ? values["elf"].as<std::string>() : elf;
    if (invocation.elf->empty()) throw bringup::usageError("invalid ELF file '' (a path)");
  }
  if (values.count("log-config") != 0) {
    invocation.logConfig = values["log-config"].as<std::string>();
    if (invocation.logConfig.empty()) throw bringup::usageError("invalid log configuration '' (a file name)");
  }
  return invocation;
}

}  // namespace kvx::cli

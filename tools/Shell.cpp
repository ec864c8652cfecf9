#include "tools/Shell.h"

#include <histedit.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "bringup/Error.h"
#include "bringup/Registers.h"
#include "bringup/image/ElfSymbols.h"
#include "tools/CommandTable.h"
#include "tools/Interrupt.h"
#include "tools/Script.h"
#include "tools/Session.h"
#include "tools/output/Output.h"

namespace kvx::cli {
namespace {

using bringup::Error;

const char* const kPrompt = "kvx-ta> ";
/// The history file, in the user's home directory.
const char* const kHistoryFile = ".kvx_ta_history";
/// The lines that the history keeps.
constexpr int kHistoryLines = 1000;
/// More completions than this are counted rather than listed.
constexpr size_t kMostListed = 200;
/// The words that leave the shell.
const char* const kLeave[] = {"quit", "exit"};

bool g_running = false;

bool startsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

bool leaves(const std::string& word) {
  return std::any_of(std::begin(kLeave), std::end(kLeave),
                     [&word](const char* name) { return word == name; });
}

/// Runs the command that `words` make in `session`; false when they ask to leave. Throws Error.
bool runLine(const std::vector<std::string>& words, Session& session) {
  const std::string& name = words.front();
  if (leaves(name)) {
    if (words.size() > 1) throw bringup::usageError("'" + name + "' takes no arguments");
    return false;
  }
  const Action action =
      parseCommand(name, {words.begin() + 1, words.end()}, CommandContext::kShell, session.symbols());
  action(session);
  session.output().finish();
  return true;
}

/// Reports the failure of a line, with what to do when the session with the agent is gone.
/// Rethrows it when the shell is to end: a SIGTERM arrived, or the reader of stdout went away.
void report(const Error& failure, Session& session) {
  if (interrupt::terminating() || session.output().readerGone()) throw failure;
  session.output().failure(failure);
  if (failure.kind() == Error::Kind::kConnection) {
    session.output().info("no session with the agent now; once it is back, 'reconnect' opens a new one");
  }
}

// ---- Completion ----

/// The files and directories whose paths start with `word`; a directory's ends in '/'. Hidden
/// ones only when `word` names them.
std::vector<std::string> paths(const std::string& word) {
  namespace fs = std::filesystem;
  const std::string directory = word.substr(0, word.rfind('/') + 1);
  const bool hidden = startsWith(word.substr(directory.size()), ".");
  std::vector<std::string> result;
  std::error_code error;
  for (fs::directory_iterator entry(directory.empty() ? "." : directory, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.front() == '.' && !hidden) continue;
    std::error_code unknown;
    result.push_back(directory + name + (entry->is_directory(unknown) ? "/" : ""));
  }
  return result;
}

/// The words that may stand where `word` is, after the words `before` of a line.
std::vector<std::string> completions(const std::vector<std::string>& before, const std::string& word,
                                     const bringup::ElfSymbols* symbols) {
  std::vector<std::string> names;
  const auto addCommands = [&names](bool all) {
    for (const CommandDefinition& definition : commandTable()) {
      if (all || commandRunsIn(definition, CommandContext::kShell)) names.emplace_back(definition.name);
    }
  };
  if (before.empty()) {
    addCommands(false);
    names.insert(names.end(), std::begin(kLeave), std::end(kLeave));
    return names;
  }
  const CommandDefinition* command = findCommand(before.front());
  if (command == nullptr) return names;
  const auto flag = [command](const std::string& option) -> const Flag* {
    for (const Flag& candidate : command->flags) {
      if (candidate.description != nullptr && option == std::string("--") + candidate.name) return &candidate;
    }
    return nullptr;
  };
  if (startsWith(word, "--")) {
    names.emplace_back("--help");
    for (const Flag& candidate : command->flags) {
      if (candidate.description != nullptr) names.push_back(std::string("--") + candidate.name);
    }
    return names;
  }
  // The placeholder of the word: an option's value, or the positional field it fills.
  std::string placeholder;
  size_t position = 0;
  for (size_t i = 1; i < before.size(); ++i) {
    const Flag* option = flag(before[i]);
    if (option != nullptr && option->valueName != nullptr) {
      if (i + 1 == before.size()) placeholder = option->valueName;
      ++i;
    } else if (!startsWith(before[i], "--")) {
      ++position;
    }
  }
  if (placeholder.empty()) {
    std::vector<const char*> fields = command->required;
    fields.insert(fields.end(), command->optional.begin(), command->optional.end());
    if (position < fields.size())
      placeholder = fields[position];
    else if (command->rest && !fields.empty())
      placeholder = fields.back();
  }
  const auto has = [&placeholder](const char* part) { return placeholder.find(part) != std::string::npos; };
  if (placeholder == "NAME" && before.front() == "reg") {
    for (const bringup::RegisterDescription& description : bringup::registerDescriptions())
      names.push_back(description.name);
  } else if (placeholder == "COMMAND") {
    addCommands(true);
  } else if (has("FILE") || has("PATH")) {
    names = paths(word);
  } else if (has("ADDR") && symbols != nullptr) {
    for (const bringup::ElfSymbols::Symbol& symbol : symbols->symbols()) names.push_back(symbol.name);
  }
  return names;
}

/// Whether `text` holds a comment: a word that starts with '#'.
bool holdsComment(const std::string& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '#' && (i == 0 || std::isspace(static_cast<unsigned char>(text[i - 1])))) return true;
  }
  return false;
}

// ---- The terminal ----

/// A terminal's line editor and its history, over libedit's own interface (histedit.h) rather
/// than its readline emulation: that interface lets kvx-ta read each key itself, so that a
/// Ctrl-C at the prompt abandons the line without libedit's signal handling, which would pass
/// the signal on to the whole process group. The prompt and the line go to stderr, leaving
/// stdout to results.
class LineEditor {
 public:
  LineEditor(Output& output, const bringup::ElfSymbols* symbols);
  /// Saves the history.
  ~LineEditor();

  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  /// The next line typed, without its newline; none at the end of the input (Ctrl-D) or when a
  /// SIGTERM ended the wait for it. A line abandoned with Ctrl-C comes back empty.
  std::optional<std::string> read();
  /// Adds `line` to the history.
  void remember(const std::string& line);

 private:
  static LineEditor& of(EditLine* editor);
  static char* prompt(EditLine* editor);
  /// libedit's reading of a key: a character of the terminal's encoding, decoded here, or an
  /// Enter that ends a line abandoned with Ctrl-C. 1 for a key, 0 at the end of the input, -1
  /// when reading failed or a SIGTERM came.
  static int readKey(EditLine* editor, wchar_t* key);
  /// readKey() with SIGINT and SIGTERM blocked, but while waiting with the mask `waiting`.
  int nextKey(wchar_t* key, const sigset_t& waiting);
  /// Tab: completes the word before the cursor, or lists what may complete it.
  static unsigned char complete(EditLine* editor, int key);
  void list(const std::vector<std::string>& names);
  /// Replaces the history file with the history, leaving it whole should that fail.
  void save();

  Output& m_output;
  const bringup::ElfSymbols* m_symbols;
  /// Empty when no history file is kept: no HOME, or one that could not be read.
  std::string m_historyPath;
  History* m_history = nullptr;
  EditLine* m_editor = nullptr;
  /// The line being read was abandoned with Ctrl-C.
  bool m_abandoned = false;
  std::mbstate_t m_keyState{};
};

LineEditor::LineEditor(Output& output, const bringup::ElfSymbols* symbols)
    : m_output(output), m_symbols(symbols) {
  // Before el_init(), which takes the terminal's encoding from it.
  std::setlocale(LC_CTYPE, "");
  m_history = history_init();
  m_editor = el_init("kvx-ta", stdin, stderr, stderr);
  if (m_history == nullptr || m_editor == nullptr) {
    if (m_history != nullptr) history_end(m_history);
    if (m_editor != nullptr) el_end(m_editor);
    throw Error(Error::Kind::kFile, "cannot edit lines on the terminal", "libedit could not start");
  }
  HistEvent event;
  history(m_history, &event, H_SETSIZE, kHistoryLines);
  history(m_history, &event, H_SETUNIQUE, 1);
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') m_historyPath = std::string(home) + "/" + kHistoryFile;
  if (!m_historyPath.empty() && ::access(m_historyPath.c_str(), F_OK) == 0 &&
      history(m_history, &event, H_LOAD, m_historyPath.c_str()) < 0) {
    // Saving would then lose what the file holds.
    m_output.warning("cannot read the history in '" + m_historyPath + "'; this session's lines are not kept");
    m_historyPath.clear();
  }
  el_set(m_editor, EL_CLIENTDATA, this);
  el_set(m_editor, EL_EDITOR, "emacs");
  el_set(m_editor, EL_PROMPT, &LineEditor::prompt);
  el_set(m_editor, EL_HIST, history, m_history);
  el_set(m_editor, EL_GETCFN, &LineEditor::readKey);
  // Through the wide interface, which keeps these strings where they are; the narrow one copies
  // them and never frees the copies.
  el_wset(m_editor, EL_ADDFN, L"kvx-complete", L"complete the word before the cursor", &LineEditor::complete);
  el_set(m_editor, EL_BIND, "^I", "kvx-complete", nullptr);
  // Last, so that the user's ~/.editrc may change any of the above.
  el_source(m_editor, nullptr);
}

LineEditor::~LineEditor() {
  try {
    save();
  } catch (const std::exception&) {
    // A warning that could not be written: nothing more to say.
  }
  el_end(m_editor);
  history_end(m_history);
}

LineEditor& LineEditor::of(EditLine* editor) {
  void* self = nullptr;
  el_get(editor, EL_CLIENTDATA, &self);
  return *static_cast<LineEditor*>(self);
}

char* LineEditor::prompt(EditLine* /*editor*/) { return const_cast<char*>(kPrompt); }

std::optional<std::string> LineEditor::read() {
  // The terminal may have changed size since the last line; libedit is not told otherwise.
  el_resize(m_editor);
  m_abandoned = false;
  int count = 0;
  const char* line = el_gets(m_editor, &count);
  if (line == nullptr || count <= 0) {
    // What follows starts on a line of its own.
    std::fputc('\n', stderr);
    return std::nullopt;
  }
  if (m_abandoned) return std::string();
  std::string text(line, static_cast<size_t>(count));
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

void LineEditor::remember(const std::string& line) {
  HistEvent event;
  history(m_history, &event, H_ENTER, line.c_str());
}

int LineEditor::readKey(EditLine* editor, wchar_t* key) {
  // The signals stay blocked but while ppoll() waits: one that came between the look at the
  // flags and the wait would not end the wait, and would be taken for a Ctrl-C at the next
  // command.
  sigset_t signals;
  sigset_t waiting;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &signals, &waiting);
  const int result = of(editor).nextKey(key, waiting);
  ::sigprocmask(SIG_SETMASK, &waiting, nullptr);
  return result;
}

int LineEditor::nextKey(wchar_t* key, const sigset_t& waiting) {
  for (;;) {
    if (interrupt::terminating()) return -1;
    if (interrupt::dismissCtrlC()) {
      // The line ends as Enter would end it, and read() drops it.
      m_abandoned = true;
      std::fputs("^C", stderr);
      *key = L'\n';
      return 1;
    }
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (::ppoll(&input, 1, nullptr, &waiting) < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    char byte = 0;
    const ssize_t got = ::read(STDIN_FILENO, &byte, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return static_cast<int>(got);
    const size_t decoded = std::mbrtowc(key, &byte, 1, &m_keyState);
    // More bytes of the character are to come.
    if (decoded == static_cast<size_t>(-2)) continue;
    // A byte that is not part of a character is dropped.
    if (decoded == static_cast<size_t>(-1)) {
      m_keyState = std::mbstate_t{};
      continue;
    }
    return 1;
  }
}

unsigned char LineEditor::complete(EditLine* editor, int /*key*/) {
  LineEditor& self = of(editor);
  const LineInfo* line = el_line(editor);
  const std::string before(line->buffer, line->cursor);
  if (holdsComment(before)) return CC_REFRESH_BEEP;
  // From the last blank before the cursor; npos + 1 is the start of the line.
  const size_t start = before.find_last_of(" \t") + 1;
  const std::string word = before.substr(start);
  std::vector<std::string> names = completions(commandWords(before.substr(0, start)), word, self.m_symbols);
  names.erase(std::remove_if(names.begin(), names.end(),
                             [&word](const std::string& name) { return !startsWith(name, word); }),
              names.end());
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  if (names.empty()) return CC_REFRESH_BEEP;
  std::string common = names.front();
  for (const std::string& name : names) {
    common.erase(std::mismatch(common.begin(), common.end(), name.begin(), name.end()).first, common.end());
  }
  // A whole word is followed by a blank, but for a directory, whose files may follow.
  if (names.size() == 1 && common.back() != '/') common += ' ';
  if (common.size() > word.size()) {
    return el_insertstr(editor, common.c_str() + word.size()) == 0 ? CC_REFRESH : CC_REFRESH_BEEP;
  }
  self.list(names);
  return CC_REDISPLAY;
}

void LineEditor::list(const std::vector<std::string>& names) {
  // "\r\n": the terminal may not be translating newlines while a line is edited.
  std::string text = "\r\n";
  if (names.size() > kMostListed) {
    text += std::to_string(names.size()) + " possibilities: type more of the word\r\n";
  } else {
    int columns = 80;
    el_get(m_editor, EL_GETTC, "co", &columns, nullptr);
    size_t width = 0;
    for (const std::string& name : names) width = std::max(width, name.size() + 2);
    const size_t perLine = std::max<size_t>(1, static_cast<size_t>(std::max(columns, 1)) / width);
    for (size_t i = 0; i < names.size(); ++i) {
      text += names[i];
      if ((i + 1) % perLine == 0 || i + 1 == names.size()) {
        text += "\r\n";
      } else {
        text.append(width - names[i].size(), ' ');
      }
    }
  }
  std::fputs(text.c_str(), stderr);
}

void LineEditor::save() {
  if (m_historyPath.empty()) return;
  std::string temporary = m_historyPath + ".XXXXXX";
  // mkstemp makes the file readable by its owner alone, as a history should be.
  const int fd = ::mkstemp(temporary.data());
  int error = fd < 0 ? errno : 0;
  if (fd >= 0) {
    FILE* file = ::fdopen(fd, "w");
    if (file == nullptr) {
      error = errno;
      ::close(fd);
    } else {
      HistEvent event;
      if (history(m_history, &event, H_SAVE_FP, file) < 0) error = errno != 0 ? errno : EIO;
      if (std::fclose(file) != 0 && error == 0) error = errno;
    }
    if (error == 0 && ::rename(temporary.c_str(), m_historyPath.c_str()) != 0) error = errno;
    if (error != 0) ::unlink(temporary.c_str());
  }
  if (error != 0) {
    m_output.warning("cannot save the history in '" + m_historyPath + "': " + std::strerror(error));
  }
}

void runInteractive(Session& session) {
  LineEditor editor(session.output(), session.symbols());
  for (;;) {
    // A Ctrl-C that stopped the last command, or came after it, is spent.
    interrupt::dismissCtrlC();
    const std::optional<std::string> line = editor.read();
    if (!line) break;
    const std::vector<std::string> words = commandWords(*line);
    if (words.empty()) continue;
    editor.remember(*line);
    try {
      if (!runLine(words, session)) return;
    } catch (const Error& failure) {
      // After the "^C" that the terminal echoed.
      if (failure.kind() == Error::Kind::kInterrupted && !interrupt::terminating()) std::fputc('\n', stderr);
      report(failure, session);
    }
  }
  if (interrupt::terminating()) interrupt::check();
}

// ---- Without a terminal ----

void runPiped(Session& session) {
  ScriptReader reader(STDIN_FILENO, "stdin");
  std::optional<Error> first;
  unsigned failures = 0;
  std::vector<std::string> words;
  while (reader.next(words)) {
    try {
      if (!runLine(words, session)) break;
    } catch (const Error& failure) {
      const Error located = reader.located(failure);
      report(located, session);
      if (!first) first = located;
      ++failures;
    }
    interrupt::dismissCtrlC();
  }
  if (first) {
    throw Error(first->kind(),
                std::to_string(failures) + (failures == 1 ? " command" : " commands") + " failed",
                "the first at " + first->location()->file + ":" + std::to_string(first->location()->line));
  }
}

}  // namespace

void runShell(Session& session) {
  struct Running {
    Running() { g_running = true; }
    ~Running() { g_running = false; }
  } running;
  if (::isatty(STDIN_FILENO)) {
    runInteractive(session);
  } else {
    runPiped(session);
  }
}

bool shellRunning() { return g_running; }

}  // namespace kvx::cli

#include "tools/RecordReader.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <optional>
#include <utility>

#include <srecord/input/file/intel.h>
#include <srecord/quit.h>
#include <srecord/record.h>

#include "bringup/Error.h"

// Debian's libsrecord-dev 1.64 installs the library's S-record reader but not its header
// (srecord/input/file/srecord.h). The one member called here is declared as that header does;
// nothing else of the class is used.
namespace srecord {
class input_file_motorola : public input_file {
 public:
  static pointer create(const std::string& file_name);
};
}  // namespace srecord

namespace kvx::cli {
namespace {

/// Takes libsrecord's messages in place of its default handler, which prints them and exits the
/// process. The library reports an error as a message followed by exit(), which must not return,
/// and a warning as a message alone: so a message is held until exit() throws it as a Failure, or
/// until the next message or record shows that it was a warning.
class Reporter : public srecord::quit {
 public:
  Reporter(std::string path, RecordReader::Syntax syntax, RecordReader::Warn warn)
      : m_path(std::move(path)), m_syntax(syntax), m_warn(std::move(warn)) {}

  /// Passes on a held message that turned out to be a warning.
  void flush() {
    if (m_held && m_warn) m_warn(*m_held);
    m_held.reset();
  }

 protected:
  void message_v(const char* format, va_list arguments) override {
    flush();
    char text[512];
    std::vsnprintf(text, sizeof text, format, arguments);
    m_held = tidy(text);
  }

  [[noreturn]] void exit(int /*status*/) override {
    const std::string reason = m_held.value_or("malformed");
    m_held.reset();
    throw bringup::Error(bringup::Error::Kind::kFile,
                         "cannot read '" + m_path + "' as " + RecordReader::name(m_syntax), reason);
  }

 private:
  /// "PATH: 12: checksum mismatch" as "line 12: checksum mismatch": the failure names the file.
  std::string tidy(std::string text) const {
    const std::string prefix = m_path + ": ";
    if (text.compare(0, prefix.size(), prefix) != 0) return text;
    text.erase(0, prefix.size());
    return std::isdigit(static_cast<unsigned char>(text[0])) != 0 ? "line " + text : text;
  }

  std::string m_path;
  RecordReader::Syntax m_syntax;
  RecordReader::Warn m_warn;
  std::optional<std::string> m_held;
};

}  // namespace

struct RecordReader::State {
  State(const std::string& path, Syntax syntax, Warn warn)
      : reporter(path, syntax, std::move(warn)),
        input(syntax == Syntax::kIntelHex ? srecord::input_file_intel::create(path)
                                          : srecord::input_file_motorola::create(path)) {
    input->set_quit(reporter);
  }

  /// Declared before the input, which keeps a pointer to it.
  Reporter reporter;
  srecord::input_file::pointer input;
  srecord::record record;
};

RecordReader::RecordReader(const std::string& path, Syntax syntax, Warn warn)
    : m_state(std::make_unique<State>(path, syntax, std::move(warn))) {}

RecordReader::~RecordReader() = default;

bool RecordReader::next(uint32_t& address, const uint8_t*& bytes, size_t& count) {
  srecord::record& record = m_state->record;
  // Headers, data counts and start addresses carry nothing to load.
  do {
    const bool more = m_state->input->read(record);
    m_state->reporter.flush();
    if (!more) return false;
  } while (record.get_type() != srecord::record::type_data);
  address = record.get_address();
  bytes = record.get_data();
  count = record.get_length();
  return true;
}

const char* RecordReader::name(Syntax syntax) {
  return syntax == Syntax::kIntelHex ? "Intel HEX" : "S-record";
}

}  // namespace kvx::cli

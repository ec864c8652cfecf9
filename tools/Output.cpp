#include "tools/Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "tools/Failure.h"

namespace kvx::cli {
namespace {

const char* const kPrefix = "kvx-ta: ";

[[noreturn]] void cannotWrite(int error) {
  throw Failure("cannot write to standard output", std::strerror(error));
}

}  // namespace

Output::Output(Options options) : m_options(options) {
  // A closed stdout would otherwise be taken by the next file kvx-ta opens, and writes meant for
  // the user would land there. Taking /dev/null's place keeps it free; results still fail.
  if (::fcntl(STDOUT_FILENO, F_GETFD) < 0 && errno == EBADF) {
    (void)std::freopen("/dev/null", "w", stdout);
    m_stdoutClosed = true;
  }
}

void Output::result(const std::string& line, const nlohmann::json& fields) {
  text(m_options.json ? fields.dump() + "\n" : line + "\n");
}

void Output::text(const std::string& line) { write(line.data(), line.size()); }

void Output::bytes(const void* data, size_t size) { write(data, size); }

void Output::write(const void* data, size_t size) {
  if (m_stdoutClosed) cannotWrite(EBADF);
  errno = 0;
  if (std::fwrite(data, 1, size, stdout) != size || std::ferror(stdout))
    cannotWrite(errno != 0 ? errno : EIO);
}

void Output::info(const std::string& line, const nlohmann::json& fields) {
  if (m_options.quiet) return;
  std::fflush(stdout);
  std::cerr << (m_options.json && !fields.is_null() ? fields.dump() : kPrefix + line) << std::endl;
}

void Output::failure(const std::string& attempted, const std::string& reason,
                     const std::string& detail) const {
  std::fflush(stdout);
  if (m_options.json) {
    nlohmann::json fields{{"error", attempted}, {"reason", reason}};
    if (m_options.verbose && !detail.empty()) fields["detail"] = detail;
    std::cerr << fields.dump() << std::endl;
    return;
  }
  // What the user typed comes back in these, control bytes and all: they are shown escaped.
  std::cerr << kPrefix << printable(attempted) << (reason.empty() ? "" : ": " + printable(reason)) << '\n';
  if (m_options.verbose && !detail.empty()) std::cerr << "  " << printable(detail) << '\n';
  std::cerr.flush();
}

void Output::finish() {
  if (m_stdoutClosed) cannotWrite(EBADF);
  errno = 0;
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) cannotWrite(errno != 0 ? errno : EIO);
}

std::string Output::printable(const std::string& text) {
  std::string result;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      result += escaped;
    } else {
      result += c;
    }
  }
  return result;
}

}  // namespace kvx::cli

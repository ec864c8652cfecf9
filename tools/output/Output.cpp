#include "tools/output/Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "bringup/AgentCalls.h"
#include "bringup/transfer/WorkerMessages.h"

namespace kvx::cli {
namespace {

const char* const kPrefix = "kvx-ta: ";
/// stdout is written in blocks of this size, or at every result.
constexpr size_t kBlock = 64 * 1024;

bringup::Error cannotWrite(int error) {
  return bringup::Error(bringup::Error::Kind::kFile, "cannot write to standard output", std::strerror(error));
}

}  // namespace

Output::Output() {
  // A closed stdout would otherwise be taken by the next file kvx-ta opens, and writes meant for
  // the user would land there. Taking /dev/null's place keeps it free; results still fail.
  if (::fcntl(STDOUT_FILENO, F_GETFD) < 0 && errno == EBADF) {
    const int null = ::open("/dev/null", O_WRONLY);
    if (null >= 0 && null != STDOUT_FILENO) {
      ::dup2(null, STDOUT_FILENO);
      ::close(null);
    }
    m_stdoutClosed = true;
  }
}

Output::~Output() = default;

void Output::result(const std::string& line, const nlohmann::json& fields) {
  text(m_options.json ? fields.dump() + "\n" : line + "\n");
}

void Output::text(const std::string& line) { write(line.data(), line.size()); }

void Output::bytes(const void* data, size_t size) { write(data, size); }

void Output::write(const void* data, size_t size) {
  m_pending.append(static_cast<const char*>(data), size);
  if (m_pending.size() >= kBlock) flush();
}

void Output::flush() {
  if (m_deferred) {
    const bringup::Error failure = *m_deferred;
    m_deferred.reset();
    throw failure;
  }
  if (m_pending.empty()) return;
  if (m_stdoutClosed) throw cannotWrite(EBADF);
  for (size_t done = 0; done < m_pending.size();) {
    const ssize_t n = ::write(STDOUT_FILENO, m_pending.data() + done, m_pending.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int error = errno;
      m_pending.clear();
      m_readerGone = error == EPIPE;
      throw cannotWrite(error);
    }
    done += static_cast<size_t>(n);
  }
  m_pending.clear();
}

void Output::finish() { flush(); }

void Output::toStderr(const std::string& line) {
  std::lock_guard<std::mutex> lock(m_stderrMutex);
  // What stdout holds comes first, so that a terminal shows both in order; a failure to write it
  // is reported by the next write to stdout, or by finish().
  try {
    flush();
  } catch (const bringup::Error& failure) {
    m_deferred = failure;
  }
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

void Output::info(const std::string& line, const nlohmann::json& fields) {
  if (m_options.quiet) return;
  toStderr(m_options.json ? (fields.is_null() ? nlohmann::json{{"info", line}} : fields).dump() + "\n"
                          : kPrefix + line + "\n");
}

void Output::warning(const std::string& line) {
  if (m_options.quiet) return;
  toStderr(m_options.json ? nlohmann::json{{"warning", line}}.dump() + "\n"
                          : std::string(kPrefix) + "warning: " + printable(line) + "\n");
}

void Output::progress(const std::string& line, const nlohmann::json& fields) {
  toStderr(m_options.json ? fields.dump() + "\n" : line);
}

void Output::trace(const bringup::AgentCall& call) {
  const double microseconds = std::chrono::duration<double, std::micro>(call.elapsed).count();
  if (m_options.json) {
    toStderr(
        nlohmann::json{{"call", call.signature()}, {"status", call.status}, {"us", microseconds}}.dump() +
        "\n");
    return;
  }
  char time[32];
  std::snprintf(time, sizeof time, "%.1f us", microseconds);
  toStderr(kPrefix + std::string("agent: ") + printable(call.signature()) + " = " +
           std::to_string(call.status) + "  (" + time + ")\n");
}

void Output::failure(const bringup::Error& error) {
  if (m_options.json || m_options.worker) {
    std::string line = bringup::failureMessage(error);
    if (m_options.verbose && !error.detail().empty()) {
      nlohmann::json fields = nlohmann::json::parse(line);
      fields["detail"] = error.detail();
      line = fields.dump() + "\n";
    }
    toStderr(line);
    return;
  }
  // What the user typed comes back in these, control bytes and all: they are shown escaped.
  std::string line = kPrefix;
  if (error.location()) line += error.location()->file + ":" + std::to_string(error.location()->line) + ": ";
  line += printable(error.what()) + "\n";
  if (m_options.verbose && !error.detail().empty()) line += "  " + printable(error.detail()) + "\n";
  toStderr(line);
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

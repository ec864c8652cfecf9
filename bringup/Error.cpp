#include "bringup/Error.h"

#include <cstring>
#include <utility>

namespace kvx::bringup {
namespace {

std::string joined(const std::string& attempted, const std::string& reason) {
  return reason.empty() ? attempted : attempted + ": " + reason;
}

}  // namespace

Error::Error(Kind kind, std::string attempted, std::string reason, std::string detail,
             std::optional<AgentCall> call)
    : std::runtime_error(joined(attempted, reason)),
      m_kind(kind),
      m_attempted(std::move(attempted)),
      m_reason(std::move(reason)),
      m_detail(std::move(detail)),
      m_call(std::move(call)) {}

Error Error::suffixed(const std::string& suffix) const {
  Error error(m_kind, m_attempted + suffix, m_reason, m_detail, m_call);
  error.m_location = m_location;
  return error;
}

Error Error::explained(const std::string& more) const {
  Error error(m_kind, m_attempted, m_reason + more, m_detail, m_call);
  error.m_location = m_location;
  return error;
}

Error Error::locatedAt(const std::string& file, unsigned line) const {
  Error error = *this;
  error.m_location = Location{file, line};
  return error;
}

const char* Error::kindName(Kind kind) {
  switch (kind) {
    case Kind::kUsage:
      return "usage";
    case Kind::kTarget:
      return "target";
    case Kind::kConnection:
      return "connection";
    case Kind::kFile:
      return "file";
    case Kind::kInterrupted:
      return "interrupted";
  }
  return "?";
}

Error usageError(std::string message) { return Error(Error::Kind::kUsage, std::move(message)); }

Error fileError(const std::string& what, const std::string& path, int error) {
  return Error(Error::Kind::kFile, "cannot " + what + " '" + path + "'", std::strerror(error));
}

}  // namespace kvx::bringup

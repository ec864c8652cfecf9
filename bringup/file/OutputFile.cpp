#include "bringup/file/OutputFile.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/file/ScratchFile.h"

namespace kvx::bringup {
namespace {

/// Writes go out in blocks of this size.
constexpr size_t kBlock = 64 * 1024;
/// Symbolic links followed before giving up, as the kernel does (MAXSYMLINKS).
constexpr int kMaxLinks = 40;

/// The descriptor of this process that `path` names through /dev/fd or /proc, if it names one.
/// Such a path is written through a copy of the descriptor, not opened again: opening would not
/// reach a socket, and would start over at the beginning of a file that standard output appends to.
std::optional<int> descriptorNamed(const std::string& path) {
  const std::string prefixes[] = {"/dev/fd/", "/proc/self/fd/", "/proc/thread-self/fd/",
                                  "/proc/" + std::to_string(::getpid()) + "/fd/"};
  for (const std::string& prefix : prefixes) {
    if (path.compare(0, prefix.size(), prefix) != 0) continue;
    const char* first = path.data() + prefix.size();
    const char* last = path.data() + path.size();
    int descriptor = -1;
    const auto [end, error] = std::from_chars(first, last, descriptor);
    if (first != last && error == std::errc() && end == last) return descriptor;
  }
  return std::nullopt;
}

std::string directoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

/// Gives the unnamed file `file` the free name `path`, through "/proc/self/fd/N". 0 or an errno value.
int linkUnnamed(const FileDescriptor& file, const std::string& path) {
  const std::string descriptor = "/proc/self/fd/" + std::to_string(file.get());
  return ::linkat(AT_FDCWD, descriptor.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0 ? 0 : errno;
}

/// Where `path` leads once its symbolic links are followed.
struct Followed {
  /// The path of what is not a link, or of the file to create when the last link dangles.
  std::string target;
  /// The descriptor of this process that the path or a link named, if one did.
  std::optional<int> descriptor;
  bool exists = false;
  struct stat status {};
};

/// Follows `path` link by link, as open() would, but stops where the last one dangles, so that
/// the file it names can be created there. 0 or an errno value.
int followLinks(const std::string& path, Followed& followed) {
  std::string at = path;
  for (int links = 0;; ++links) {
    if ((followed.descriptor = descriptorNamed(at))) return 0;
    followed.target = at;
    followed.exists = ::lstat(at.c_str(), &followed.status) == 0;
    if (!followed.exists) return errno == ENOENT ? 0 : errno;
    if (!S_ISLNK(followed.status.st_mode)) return 0;
    if (links == kMaxLinks) return ELOOP;
    std::vector<char> link(PATH_MAX);
    const ssize_t size = ::readlink(at.c_str(), link.data(), link.size());
    if (size < 0) return errno;
    if (static_cast<size_t>(size) == link.size()) return ENAMETOOLONG;
    const std::string next(link.data(), static_cast<size_t>(size));
    at = next.front() == '/' ? next : directoryOf(at) + "/" + next;
  }
}

/// Whether the regular file `status` at `target` can be written beside and renamed over: it has
/// one name, the user may write it (a read-only file is not replaced behind its owner's back), and
/// no sticky directory forbids the rename (a file in /tmp that someone else owns).
bool replaceable(const std::string& target, const struct stat& status) {
  if (!S_ISREG(status.st_mode) || status.st_nlink != 1) return false;
  if (::faccessat(AT_FDCWD, target.c_str(), W_OK, AT_EACCESS) != 0) return false;
  struct stat directory {};
  if (::stat(directoryOf(target).c_str(), &directory) != 0) return false;
  const uid_t user = ::geteuid();
  return (directory.st_mode & S_ISVTX) == 0 || user == 0 || status.st_uid == user || directory.st_uid == user;
}

/// Connects to the stream socket at `path`, as writing to it means. 0 or an errno value.
int connectTo(const std::string& path, FileDescriptor& file) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return ENAMETOOLONG;
  path.copy(address.sun_path, path.size());
  file = FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!file) return errno;
  return ::connect(file.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

}  // namespace

OutputFile::OutputFile(std::string path) : m_path(std::move(path)) {
  if (m_path.empty()) throw usageError("the output file's path is empty ('-' is standard output)");
  Followed followed;
  if (m_path == "-") {
    followed.descriptor = STDOUT_FILENO;
  } else if (const int error = followLinks(m_path, followed)) {
    throw fileError("write", m_path, error);
  }
  m_target = followed.target;
  if (followed.descriptor) {
    const int flags = ::fcntl(*followed.descriptor, F_GETFL);
    if (flags < 0) throw fileError("write", m_path, errno);
    if ((flags & O_ACCMODE) == O_RDONLY) throw fileError("write", m_path, EBADF);
    m_file = FileDescriptor(::fcntl(*followed.descriptor, F_DUPFD_CLOEXEC, 0));
    if (!m_file) throw fileError("write", m_path, errno);
    startInPlace();
    return;
  }
  const std::string directory = directoryOf(m_target);
  if (!followed.exists) {
    m_way = Way::kCreate;
    if (const int error = openTemporary(directory, nameOf(m_target), 0666, m_file, m_hidden))
      throw fileError("create", m_path, error);
    return;
  }
  if (replaceable(m_target, followed.status)) {
    const int error = openTemporary(directory, nameOf(m_target), 0600, m_file, m_hidden);
    if (error == 0) {
      m_way = Way::kReplace;
      if (const int failed = keepOwnerAndMode(followed.status)) {
        discard();
        throw fileError("keep the mode of", m_path, failed);
      }
      return;
    }
    // As cp does: a file the user may write, in a directory the user may not, is written in place.
    if (error != EACCES && error != EPERM && error != EROFS) throw fileError("write", m_path, error);
  }
  int error = 0;
  if (S_ISSOCK(followed.status.st_mode)) {
    error = connectTo(m_target, m_file);
  } else {
    m_file = FileDescriptor(::open(m_target.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
    error = m_file ? 0 : errno;
  }
  if (error != 0) throw fileError("write", m_path, error);
  struct stat status {};
  if (::fstat(m_file.get(), &status) != 0) throw fileError("write", m_path, errno);
  m_emptiedFirst = S_ISREG(status.st_mode);
  m_durable = S_ISREG(status.st_mode) || S_ISBLK(status.st_mode);
  startInPlace();
}

OutputFile::~OutputFile() {
  if (!m_committed) discard();
}

void OutputFile::write(const void* bytes, size_t size) {
  writeAt(m_bufferOffset + m_buffer.size(), bytes, size);
}

void OutputFile::writeAt(uint64_t offset, const void* bytes, size_t size) {
  if (size == 0) return;
  const auto* data = static_cast<const char*>(bytes);
  if (offset != m_bufferOffset + m_buffer.size()) {
    flush();
    m_bufferOffset = offset;
  }
  if (m_buffer.empty() && size >= kBlock) {
    deliver(offset, data, size);
    m_bufferOffset = offset + size;
    return;
  }
  m_buffer.append(data, size);
  if (m_buffer.size() >= kBlock) flush();
}

void OutputFile::commit() {
  if (m_committed) return;
  flush();
  if (m_way == Way::kInPlace) {
    if (m_inOrder->waiting()) {
      throw std::logic_error("'" + m_path + "' is committed with bytes missing after its first " +
                             byteCount(m_inOrder->delivered()));
    }
    // A dump of nothing leaves the file empty too.
    emptyOnce();
    if (m_durable && ::fsync(m_file.get()) != 0) throw fileError("write", m_path, errno);
    if (const int error = m_file.close()) throw fileError("write", m_path, error);
    m_committed = true;
    return;
  }
  if (::fsync(m_file.get()) != 0) throw fileError("write", m_path, errno);
  if (m_way == Way::kCreate && m_hidden.empty()) {
    if (const int error = linkUnnamed(m_file, m_target)) throw fileError("create", m_path, error);
  } else {
    // rename() replaces in one step, but only a file that has a name: an unnamed one gets a hidden
    // name first, for the moment until the rename.
    if (m_hidden.empty()) {
      const int error = makeHidden(
          directoryOf(m_target), nameOf(m_target),
          [&](const std::string& hidden) { return linkUnnamed(m_file, hidden); }, m_hidden);
      if (error != 0) throw fileError("write", m_path, error);
    }
    if (::rename(m_hidden.c_str(), m_target.c_str()) != 0) throw fileError("write", m_path, errno);
    m_hidden.clear();
  }
  // The bytes are on disk (fsync said so) and the file is at the path: a late complaint of close
  // would not change either.
  m_file.close();
  m_committed = true;
}

std::string OutputFile::leftBehind(uint64_t expected) const {
  const std::string quoted = "'" + m_path + "'";
  switch (m_way) {
    case Way::kCreate:
      return quoted + " is not created";
    case Way::kReplace:
      return quoted + " is left as it was";
    case Way::kInPlace:
      break;
  }
  if (m_written == 0 && !m_emptied) return "nothing was written to " + quoted;
  return quoted + " is left incomplete: " + std::to_string(m_written) + " of " + byteCount(expected) +
         " written";
}

void OutputFile::startInPlace() {
  m_way = Way::kInPlace;
  m_inOrder = std::make_unique<ScratchFile>([this](const uint8_t* bytes, size_t size) {
    emptyOnce();
    if (const int error = m_file.write(bytes, size, m_written)) throw fileError("write", m_path, error);
  });
}

int OutputFile::keepOwnerAndMode(const struct ::stat& old) {
  // Root keeps both, a user the group if it is one of theirs. What cannot be kept takes the
  // set-user or set-group bit with it, so that the file never runs as someone it does not belong to.
  const bool userKept = ::fchown(m_file.get(), old.st_uid, static_cast<gid_t>(-1)) == 0;
  const bool groupKept = ::fchown(m_file.get(), static_cast<uid_t>(-1), old.st_gid) == 0;
  mode_t mode = old.st_mode & 07777;
  if (!userKept) mode &= ~static_cast<mode_t>(S_ISUID);
  if (!groupKept) mode &= ~static_cast<mode_t>(S_ISGID);
  return ::fchmod(m_file.get(), mode) == 0 ? 0 : errno;
}

void OutputFile::flush() {
  if (m_buffer.empty()) return;
  deliver(m_bufferOffset, m_buffer.data(), m_buffer.size());
  m_bufferOffset += m_buffer.size();
  m_buffer.clear();
}

void OutputFile::deliver(uint64_t offset, const char* bytes, size_t size) {
  if (m_way == Way::kInPlace) {
    m_inOrder->writeAt(offset, bytes, size);
  } else if (const int error = m_file.writeAt(offset, bytes, size)) {
    throw fileError("write", m_path, error);
  }
}

void OutputFile::emptyOnce() {
  // Only when the first byte is ready, so that a dump that fails before it leaves the file as it was.
  if (!m_emptiedFirst || m_emptied) return;
  if (::ftruncate(m_file.get(), 0) != 0) throw fileError("write", m_path, errno);
  m_emptied = true;
}

void OutputFile::discard() noexcept {
  if (!m_hidden.empty()) ::unlink(m_hidden.c_str());
  m_hidden.clear();
  m_file.close();
}

}  // namespace kvx::bringup

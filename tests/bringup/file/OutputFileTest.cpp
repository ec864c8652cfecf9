#include "bringup/file/OutputFile.h"

#include <signal.h>
#include <sys/sysmacros.h>

#include <thread>

#include "bringup/Error.h"
#include "tests/bringup/file/FileTesting.h"

namespace kvx::test {
namespace {

using bringup::Error;
using bringup::OutputFile;

/// More than one block of writes, so that some go out before commit.
const std::string kBytes = [] {
  std::string bytes(200 * 1024, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + i / 256);
  return bytes;
}();

/// Writes `bytes` through an OutputFile at `path` and commits it: what that threw ("KIND: WHAT"
/// for an Error), or "".
std::string failureOf(const std::string& path, const std::string& bytes = kBytes) {
  try {
    OutputFile file(path);
    file.write(bytes.data(), bytes.size());
    file.commit();
  } catch (const Error& error) {
    return Error::kindName(error.kind()) + std::string(": ") + error.what();
  }
  return "";
}

class OutputFileTest : public FileTest {};

TEST_F(OutputFileTest, NewFileAppearsOnlyWhenCompleteAndNotAtAllWhenDropped) {
  withAndWithoutUnnamedFiles([&](const std::string& directory) {
    const std::string path = directory + "/dump.bin";
    {
      OutputFile dropped(directory + "/dropped.bin");
      dropped.write(kBytes.data(), kBytes.size());
      EXPECT_EQ(dropped.leftBehind(kBytes.size()), "'" + directory + "/dropped.bin' is not created");
    }
    OutputFile file(path);
    file.write(kBytes.data(), kBytes.size());
    EXPECT_FALSE(std::filesystem::exists(path));
    file.commit();
    EXPECT_EQ(names(directory), std::vector<std::string>{"dump.bin"});
    EXPECT_EQ(contents(path), kBytes);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(statusOf(path).st_mode & 07777, 0666 & ~mask);
  });
}

TEST_F(OutputFileTest, ReplacedFileKeepsItsModeAndOwnerAndStaysAsItWasUntilCommit) {
  withAndWithoutUnnamedFiles([&](const std::string& directory) {
    const bool root = ::geteuid() == 0;
    for (mode_t mode : {0600, 0751}) {
      const std::string path = directory + "/" + std::to_string(mode);
      make(path, "old", mode);
      EXPECT_TRUE(!root || ::chown(path.c_str(), 4321, 4321) == 0);
      {
        OutputFile dropped(path);
        dropped.write(kBytes.data(), kBytes.size());
        EXPECT_EQ(dropped.leftBehind(kBytes.size()), "'" + path + "' is left as it was");
      }
      EXPECT_EQ(contents(path), "old");
      EXPECT_EQ(failureOf(path), "");
      EXPECT_EQ(contents(path), kBytes);
      const struct stat status = statusOf(path);
      EXPECT_EQ(status.st_mode & 07777, mode);
      EXPECT_TRUE(!root || (status.st_uid == 4321 && status.st_gid == 4321));
    }
    EXPECT_EQ(names(directory), (std::vector<std::string>{"384", "489"})) << "modes 0600 and 0751";
  });
}

TEST_F(OutputFileTest, HardLinkIsWrittenInPlaceAndBothNamesSeeTheBytes) {
  make(at("a"), "old");
  ASSERT_EQ(::link(at("a").c_str(), at("b").c_str()), 0);
  {
    OutputFile failed(at("a"));
    EXPECT_TRUE(failed.inPlace());
    EXPECT_EQ(failed.leftBehind(131072), "nothing was written to '" + at("a") + "'");
    EXPECT_EQ(contents(at("b")), "old") << "a dump that fails before its first byte leaves the file";
    failed.writeAt(0, kBytes.data(), 65536);
    EXPECT_EQ(failed.leftBehind(131072),
              "'" + at("a") + "' is left incomplete: 65536 of 131072 bytes written");
  }
  const ino_t inode = statusOf(at("a")).st_ino;
  EXPECT_EQ(failureOf(at("a")), "");
  EXPECT_EQ(contents(at("b")), kBytes);
  EXPECT_EQ(statusOf(at("b")).st_ino, inode);
  EXPECT_EQ(statusOf(at("b")).st_nlink, 2u);
  EXPECT_EQ(failureOf(at("b"), ""), "");
  EXPECT_EQ(contents(at("a")), "") << "a dump of nothing empties the file";
}

TEST_F(OutputFileTest, SymbolicLinkIsFollowedAndStaysALink) {
  make(at("target"), "old", 0640);
  ASSERT_EQ(::symlink("target", at("link").c_str()), 0);
  ASSERT_EQ(::symlink(at("link").c_str(), at("link-to-link").c_str()), 0);
  ASSERT_EQ(::symlink("made", at("dangling").c_str()), 0);
  EXPECT_EQ(failureOf(at("link-to-link")), "");
  EXPECT_EQ(failureOf(at("dangling"), "new"), "");
  for (const char* link : {"link", "link-to-link", "dangling"}) {
    EXPECT_TRUE(S_ISLNK(statusOf(at(link)).st_mode)) << "case: " << link;
  }
  EXPECT_EQ(contents(at("target")), kBytes);
  EXPECT_EQ(statusOf(at("target")).st_mode & 07777, 0640u);
  EXPECT_EQ(contents(at("made")), "new");
}

TEST_F(OutputFileTest, FifoGetsPartsThatArriveOutOfOrderInOrder) {
  ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
  std::string received;
  std::thread reader([&] { received = contents(at("fifo")); });
  // Whatever happens, the file is closed, which lets the reader go.
  EXPECT_NO_THROW({
    OutputFile file(at("fifo"));
    // Three parts, the last first, in pieces as a worker's pipe delivers them.
    const size_t part = kBytes.size() / 3;
    for (size_t index : {2, 0, 1}) {
      const size_t end = index == 2 ? kBytes.size() : (index + 1) * part;
      for (size_t at = index * part; at < end; at += 4000)
        file.writeAt(at, kBytes.data() + at, std::min<size_t>(4000, end - at));
    }
    file.commit();
  });
  reader.join();
  EXPECT_EQ(received, kBytes);
  EXPECT_TRUE(S_ISFIFO(statusOf(at("fifo")).st_mode));
}

TEST_F(OutputFileTest, DevicesAreWrittenInPlaceAndAFullOneSaysSo) {
  // Root gets copies of the devices, so that a fault here cannot damage the machine's own.
  const bool root = ::geteuid() == 0;
  const std::string null = root ? at("null") : "/dev/null";
  const std::string full = root ? at("full") : "/dev/full";
  ASSERT_TRUE(!root || ::mknod(null.c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0);
  ASSERT_TRUE(!root || ::mknod(full.c_str(), S_IFCHR | 0666, makedev(1, 7)) == 0);
  EXPECT_EQ(failureOf(null), "");
  EXPECT_EQ(failureOf(full), "file: cannot write '" + full + "': No space left on device");
  EXPECT_TRUE(S_ISCHR(statusOf(null).st_mode) && S_ISCHR(statusOf(full).st_mode));
}

TEST_F(OutputFileTest, StandardOutputIsWrittenWhereItStandsUnderEveryName) {
  // What dumping `bytes` to `name` threw, with standard output pointed at `path`.
  const auto redirected = [](const std::string& path, const std::string& name, const std::string& bytes) {
    std::fflush(stdout);
    const int saved = ::dup(STDOUT_FILENO);
    const int out = ::open(path.c_str(), O_WRONLY | O_APPEND);
    ::dup2(out, STDOUT_FILENO);
    const std::string failure = failureOf(name, bytes);
    ::dup2(saved, STDOUT_FILENO);
    ::close(saved);
    ::close(out);
    return failure;
  };
  make(at("out"), "appended to:\n");
  for (const std::string name : {"-", "/dev/stdout", "/dev/fd/1", "/proc/self/fd/1"}) {
    EXPECT_EQ(redirected(at("out"), name, name + "\n"), "") << "case: " << name;
  }
  EXPECT_EQ(contents(at("out")), "appended to:\n-\n/dev/stdout\n/dev/fd/1\n/proc/self/fd/1\n");
  EXPECT_EQ(redirected("/dev/full", "-", "a short write"), "file: cannot write '-': No space left on device");
}

TEST_F(OutputFileTest, WritableFileInADirectoryTheUserCannotWriteIsWrittenInPlace) {
  make(at("writable"), "old", 0666);
  const ino_t inode = statusOf(at("writable")).st_ino;
  ASSERT_EQ(::chmod(m_directory.c_str(), 0555), 0);
  // Root may write any directory: then the test runs as nobody.
  inChild([&] {
    ASSERT_TRUE(::geteuid() != 0 || (::setgid(65534) == 0 && ::setuid(65534) == 0));
    EXPECT_EQ(failureOf(at("writable")), "");
    EXPECT_EQ(failureOf(at("new")), "file: cannot create '" + at("new") + "': Permission denied");
  });
  ::chmod(m_directory.c_str(), 0700);
  EXPECT_EQ(contents(at("writable")), kBytes);
  EXPECT_EQ(statusOf(at("writable")).st_ino, inode);
}

TEST_F(OutputFileTest, KilledDumpLeavesNothingBehind) {
  make(at("old"), "old");
  std::fflush(stdout);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    OutputFile created(at("new"));
    OutputFile replaced(at("old"));
    created.write(kBytes.data(), kBytes.size());
    replaced.write(kBytes.data(), kBytes.size());
    ::kill(::getpid(), SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(names(m_directory), std::vector<std::string>{"old"});
  EXPECT_EQ(contents(at("old")), "old");
}

TEST_F(OutputFileTest, PathThatCannotBeWrittenIsRefusedWithItsCause) {
  ASSERT_EQ(::symlink("loop", at("loop").c_str()), 0);
  const int readOnly = ::open("/dev/null", O_RDONLY);
  const std::string input = "/dev/fd/" + std::to_string(readOnly);
  const std::pair<std::string, std::string> refused[] = {
      {"", "usage: the output file's path is empty ('-' is standard output)"},
      {at("missing/dump.bin"),
       "file: cannot create '" + at("missing/dump.bin") + "': No such file or directory"},
      {at("loop"), "file: cannot write '" + at("loop") + "': Too many levels of symbolic links"},
      {input, "file: cannot write '" + input + "': Bad file descriptor"},
  };
  for (const auto& [path, failure] : refused) EXPECT_EQ(failureOf(path), failure) << "case: " << path;
  ::close(readOnly);
}

}  // namespace
}  // namespace kvx::test

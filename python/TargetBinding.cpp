#include "python/TargetBinding.h"

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bringup/Error.h"
#include "bringup/Installation.h"
#include "bringup/Numbers.h"
#include "bringup/Ranges.h"
#include "bringup/Registers.h"
#include "bringup/Target.h"
#include "bringup/file/OutputFile.h"
#include "bringup/transfer/ImageTransfers.h"
#include "bringup/transfer/MemoryTransfers.h"
#include "bringup/transfer/Transfer.h"
#include "bringup/transfer/WorkerMessages.h"
#include "python/Arguments.h"
#include "python/Interruption.h"
#include "python/WithoutGil.h"

namespace py = pybind11;

namespace kvx::python {
namespace {

using bringup::Range;

/// The name of the process that Python asks the plug-in for.
const char* const kProcessName = "ta_kvx";
/// The most workers a transfer takes, as kvx-ta's --jobs does.
constexpr uint64_t kMaxJobs = 64;

/// A Target of the bring-up library, as Python holds it.
class PythonTarget {
 public:
  PythonTarget(const std::string& host, uint16_t port)
      : m_target(common::Endpoint{host, port}, kProcessName) {}

  bringup::Target& target() { return m_target; }
  const common::Endpoint& endpoint() const { return m_target.endpoint(); }

  /// A transfer on this target that Ctrl-C stops, in this process or with `jobs` kvx-ta workers.
  /// Python code asks for what it means: no bound on the length.
  bringup::Transfer transfer(bringup::Progress& progress, unsigned jobs, unsigned width = 0) {
    bringup::Transfer::Options options;
    options.jobs = jobs;
    options.force = true;
    options.width = width;
    if (jobs > 1) {
      const std::string kvxTa = bringup::installedProgram("kvx-ta");
      if (kvxTa.empty()) {
        throw bringup::usageError("jobs above 1 need kvx-ta, which is not installed beside the plug-in");
      }
      options.workers = bringup::WorkerLaunch{kvxTa, bringup::workerOptions(endpoint(), std::nullopt, true)};
    }
    return bringup::Transfer([this]() -> bringup::Target& { return m_target; }, progress, &checkSignals,
                             options);
  }

 private:
  bringup::Target m_target;
};

/// `length` bytes from `address`, which must end within 64 bits.
Range rangeOf(py::handle address, uint64_t length) {
  const uint64_t start = Arguments::toUnsigned(address, "address");
  if (length != 0 && length - 1 > std::numeric_limits<uint64_t>::max() - start) {
    throw py::value_error("address + length must not pass the end of the 64-bit address space");
  }
  return {start, length};
}

/// An access width: 1, 2, 4 or 8.
unsigned widthOf(py::handle width) {
  const uint64_t bytes = Arguments::toUnsigned(width, "width", bringup::kMaxAccessBytes, 1);
  if ((bytes & (bytes - 1)) != 0)
    throw py::value_error("width must be 1, 2, 4 or 8, not " + std::to_string(bytes));
  return static_cast<unsigned>(bytes);
}

unsigned jobsOf(py::handle jobs) {
  return static_cast<unsigned>(Arguments::toUnsigned(jobs, "jobs", kMaxJobs, 1));
}

/// Binds read_uN and write_uN for accesses of `size` bytes.
void bindSizedAccess(py::class_<PythonTarget>& target, unsigned size) {
  const std::string bits = std::to_string(size * 8);
  const uint64_t most = size == 8 ? std::numeric_limits<uint64_t>::max() : (uint64_t{1} << (size * 8)) - 1;
  target.def(("read_u" + bits).c_str(),
             [size](PythonTarget& self, py::handle address) {
               const Range where = rangeOf(address, size);
               return withoutGil([&] {
                 uint8_t bytes[bringup::kMaxAccessBytes];
                 self.target().read(where.address, bytes, size);
                 return bringup::fromTargetBytes(bytes, size);
               });
             },
             py::arg("address"),
             ("The unsigned " + bits + "-bit little-endian value at address, in one access.").c_str());
  target.def(("write_u" + bits).c_str(),
             [size, most](PythonTarget& self, py::handle address, py::handle value) {
               const Range where = rangeOf(address, size);
               const uint64_t number = Arguments::toUnsigned(value, "value", most);
               withoutGil([&] {
                 uint8_t bytes[bringup::kMaxAccessBytes];
                 bringup::toTargetBytes(number, bytes, size);
                 self.target().write(where.address, bytes, size);
               });
             },
             py::arg("address"), py::arg("value"),
             ("Writes value as an unsigned " + bits + "-bit little-endian number, in one access.").c_str());
}

void bindAccesses(py::class_<PythonTarget>& target) {
  target.def(
      "read",
      [](PythonTarget& self, py::handle address, py::handle length) {
        const Range where = rangeOf(address, Arguments::toLength(length, "length"));
        py::bytes result = Arguments::newBytes(where.length, "length");
        auto* out = reinterpret_cast<uint8_t*>(PyBytes_AS_STRING(result.ptr()));
        withoutGil([&] {
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, 1);
          uint64_t offset = 0;
          transfer.reportingHowFar("read", where.length, [&] {
            transfer.read(where, [&](const uint8_t* bytes, size_t count) {
              std::memcpy(out + offset, bytes, count);
              offset += count;
            });
          });
        });
        return result;
      },
      py::arg("address"), py::arg("length"),
      "length bytes from address on, in accesses of at most 8 bytes in address order, each after the first "
      "aligned to 8 bytes.");
  target.def(
      "write",
      [](PythonTarget& self, py::handle address, py::handle data) {
        const std::string bytes = Arguments::toBytes(data, "data");
        const Range where = rangeOf(address, bytes.size());
        withoutGil([&] {
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, 1);
          transfer.reportingHowFar("written", where.length, [&] {
            transfer.write(where, [&](uint64_t offset, uint8_t* out, size_t count) {
              std::memcpy(out, bytes.data() + offset, count);
            });
          });
        });
      },
      py::arg("address"), py::arg("data"),
      "Writes the bytes of data from address on, split as read() splits.");
  for (unsigned size : {1u, 2u, 4u, 8u}) bindSizedAccess(target, size);
  target.def(
      "read_mem",
      [](PythonTarget& self, py::handle address, py::handle count, py::handle unitSize) {
        const uint64_t at = Arguments::toUnsigned(address, "address");
        const uint64_t units = Arguments::toUnsigned(count, "count", std::numeric_limits<size_t>::max());
        const uint64_t unit =
            Arguments::toUnsigned(unitSize, "unit_size", std::numeric_limits<unsigned>::max());
        uint8_t bytes[bringup::kMaxAccessBytes] = {};
        const size_t moved =
            withoutGil([&] { return self.target().readOnce(at, size_t(units), unsigned(unit), bytes); });
        return py::bytes(reinterpret_cast<const char*>(bytes), moved);
      },
      py::arg("address"), py::arg("count"), py::arg("unit_size") = 1,
      "One read_mem call of count * unit_size bytes, exactly as a host makes it: the plug-in moves at most 8 "
      "bytes, returned here, and logs a warning for a longer request.");
}

void bindRegisters(py::class_<PythonTarget>& target) {
  target.def(
      "read_register",
      [](PythonTarget& self, py::handle name) {
        const std::string registerName = Arguments::toName(name, "register name");
        return withoutGil([&] { return self.target().readRegister(registerName).value; });
      },
      py::arg("name"),
      "The value of the register called name, read once; target.registers[name] reads it too.");
  target.def(
      "write_register",
      [](PythonTarget& self, py::handle name, py::handle value) {
        const std::string registerName = Arguments::toName(name, "register name");
        const uint64_t number = Arguments::toUnsigned(value, "value");
        withoutGil([&] { self.target().writeRegister(registerName, number); });
      },
      py::arg("name"), py::arg("value"),
      "Writes value to the register called name, which refuses a value wider than itself.");
  target.def_property_readonly_static(
      "register_widths",
      [](py::handle) {
        py::dict widths;
        for (const auto& description : bringup::registerDescriptions())
          widths[description.name.c_str()] = description.bits;
        return widths;
      },
      "The target's registers by name, and their widths in bits, from the register description: no agent "
      "access.");
}

void bindReservations(py::class_<PythonTarget>& target) {
  target.def(
      "reserve",
      [](PythonTarget& self, py::handle size) {
        const uint64_t bytes = Arguments::toUnsigned(size, "size", std::numeric_limits<uint64_t>::max(), 1);
        return withoutGil([&] { return self.target().reserve(bytes); });
      },
      py::arg("size"),
      "The address of a newly reserved block of size bytes; TargetError when there is no room.");
  target.def(
      "unreserve",
      [](PythonTarget& self, py::handle address) {
        const uint64_t at = Arguments::toUnsigned(address, "address");
        return withoutGil([&] { return self.target().tryUnreserve(at); });
      },
      py::arg("address"), "Releases the reserved block at address; False when no block starts there.");
  target.def(
      "unreserve_all", [](PythonTarget& self) { withoutGil([&] { self.target().unreserveAll(); }); },
      "Releases every reserved block.");
}

/// An image command's arguments: the file, an address or offset, and an access width.
bringup::ImageSource imageSource(py::handle path, py::handle address, py::handle width) {
  bringup::ImageSource source;
  source.path = Arguments::toPath(path, "path");
  if (!address.is_none()) source.options.address = Arguments::toUnsigned(address, "address");
  if (!width.is_none()) source.options.width = widthOf(width);
  return source;
}

/// Hands the warnings that an image gave to Python's warnings, once the call is over.
void warnAll(const std::vector<std::string>& warnings) {
  for (const std::string& warning : warnings) PyErr_WarnEx(PyExc_UserWarning, warning.c_str(), 1);
}

void bindImages(py::class_<PythonTarget>& target) {
  target.def(
      "load",
      [](PythonTarget& self, py::handle path, py::handle address, py::handle verify, py::handle jobs,
         py::handle width) {
        const bringup::ImageSource source = imageSource(path, address, width);
        const bool andVerify = Arguments::toBool(verify, "verify");
        const unsigned workers = jobsOf(jobs);
        std::vector<std::string> warnings;
        const std::optional<uint64_t> entry = withoutGil([&] {
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, workers, source.options.width);
          const auto image =
              bringup::openImage(source, transfer, [&](const std::string& w) { warnings.push_back(w); });
          if (andVerify && !image->rereadable()) {
            throw bringup::usageError("verify reads '" + source.path + "' again, which a pipe cannot give");
          }
          transfer.reportingHowFar("written", image->size(),
                                   [&] { bringup::loadImage(transfer, *image, source, std::nullopt); });
          if (andVerify) {
            bringup::Transfer again = self.transfer(progress, workers, source.options.width);
            bringup::verifyImage(again, *image, source, std::nullopt, "wrote ", "read back ");
          }
          return image->entryPoint();
        });
        warnAll(warnings);
        return entry ? py::object(py::int_(*entry)) : py::object(py::none());
      },
      py::arg("path"), py::arg("address") = py::none(), py::arg("verify") = false, py::arg("jobs") = 1,
      py::arg("width") = py::none(),
      "Writes the image in the file at path (raw binary, Intel HEX, S-record or ELF) to target memory, as "
      "kvx-ta "
      "load does; raw binary needs address, the other formats take it as an offset. With verify, reads the "
      "bytes "
      "back. Returns the image's entry point, or None. Warnings about the file are Python warnings.");
  target.def(
      "verify",
      [](PythonTarget& self, py::handle path, py::handle address, py::handle jobs, py::handle width) {
        const bringup::ImageSource source = imageSource(path, address, width);
        const unsigned workers = jobsOf(jobs);
        std::vector<std::string> warnings;
        withoutGil([&] {
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, workers, source.options.width);
          const auto image =
              bringup::openImage(source, transfer, [&](const std::string& w) { warnings.push_back(w); });
          bringup::verifyImage(transfer, *image, source, std::nullopt, "the file has ", "the target ");
        });
        warnAll(warnings);
      },
      py::arg("path"), py::arg("address") = py::none(), py::arg("jobs") = 1, py::arg("width") = py::none(),
      "Compares target memory with the image in the file at path; TargetError at the first byte that "
      "differs.");
}

void bindTransfers(py::class_<PythonTarget>& target) {
  target.def(
      "dump",
      [](PythonTarget& self, py::handle address, py::handle size, py::handle path, py::handle jobs) {
        const Range where = rangeOf(address, Arguments::toUnsigned(size, "size"));
        const std::string file = Arguments::toPath(path, "path");
        const unsigned workers = jobsOf(jobs);
        withoutGil([&] {
          bringup::OutputFile out(file);
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, workers);
          try {
            transfer.reportingHowFar("read", where.length, [&] {
              bringup::dump(transfer, where,
                            [&](const uint8_t* bytes, size_t count) { out.write(bytes, count); });
            });
            out.commit();
          } catch (const bringup::Error& failure) {
            if (failure.kind() == bringup::Error::Kind::kUsage) throw;
            throw failure.explained("; " + out.leftBehind(where.length));
          }
        });
      },
      py::arg("address"), py::arg("size"), py::arg("path"), py::arg("jobs") = 1,
      "Writes the size bytes from address into the file at path, as kvx-ta dump --out does: a new file "
      "appears only when complete, an existing one keeps its mode, a FIFO or device is written in place.");
  target.def(
      "fill",
      [](PythonTarget& self, py::handle address, py::handle size, py::handle pattern, py::handle jobs) {
        const Range where = rangeOf(address, Arguments::toUnsigned(size, "size"));
        const std::string bytes = Arguments::toBytes(pattern, "pattern");
        if (bytes.empty() || bytes.size() > bringup::kMaxAccessBytes) {
          throw py::value_error("pattern must hold 1 to 8 bytes, not " + std::to_string(bytes.size()));
        }
        const std::vector<uint8_t> repeated(bytes.begin(), bytes.end());
        const unsigned workers = jobsOf(jobs);
        withoutGil([&] {
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, workers);
          transfer.reportingHowFar("written", where.length,
                                   [&] { bringup::fill(transfer, where, repeated); });
        });
      },
      py::arg("address"), py::arg("size"), py::arg("pattern"), py::arg("jobs") = 1,
      "Writes pattern (1 to 8 bytes), repeated from address on, over size bytes.");
  target.def(
      "crc32",
      [](PythonTarget& self, py::handle address, py::handle size, py::handle jobs) {
        const Range where = rangeOf(address, Arguments::toUnsigned(size, "size"));
        const unsigned workers = jobsOf(jobs);
        return withoutGil([&] {
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, workers);
          uint32_t crc = 0;
          transfer.reportingHowFar("read", where.length, [&] { crc = bringup::crc32(transfer, where); });
          return crc;
        });
      },
      py::arg("address"), py::arg("size"), py::arg("jobs") = 1,
      "The CRC-32 of the size bytes from address: zlib.crc32's.");
  target.def(
      "wait",
      [](PythonTarget& self, py::handle address, py::handle value, py::handle size, py::handle mask,
         py::handle timeoutMs, py::handle intervalMs) {
        bringup::WaitCondition condition;
        condition.size =
            static_cast<unsigned>(Arguments::toUnsigned(size, "size", bringup::kMaxAccessBytes, 1));
        condition.address = rangeOf(address, condition.size).address;
        const uint64_t most = condition.size == 8 ? std::numeric_limits<uint64_t>::max()
                                                  : (uint64_t{1} << (8 * condition.size)) - 1;
        condition.value = Arguments::toUnsigned(value, "value", most);
        if (!mask.is_none()) condition.mask = Arguments::toUnsigned(mask, "mask", most);
        condition.timeoutMs = Arguments::toUnsigned(timeoutMs, "timeout_ms", bringup::kMaxWaitMs);
        condition.intervalMs = Arguments::toUnsigned(intervalMs, "interval_ms", bringup::kMaxWaitMs);
        return withoutGil([&] {
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, 1);
          return bringup::waitFor(transfer, condition);
        });
      },
      py::arg("address"), py::arg("value"), py::arg("size") = 4, py::arg("mask") = py::none(),
      py::arg("timeout_ms") = 5000, py::arg("interval_ms") = 100,
      "Reads size bytes at address every interval_ms until, ANDed with mask, they equal value, and returns "
      "the "
      "value read; TargetError with the last value read after timeout_ms. Never sleeps past the timeout.");
}

}  // namespace

void bindTarget(py::module_& module) {
  py::class_<PythonTarget> target(module, "Target",
                                  R"(A target reached through the plug-in: the process that the
plug-in's manager gives for a configuration block with TaType "KVX" naming host and port.

Any thread may use any Target; every call lets other Python threads run while it waits on the
agent, and Ctrl-C stops a long call after the access in flight. A refused access, or one whose
agent is gone, raises TargetError, which says why.)");
  target.def(py::init([](py::handle host, py::handle port) {
               const std::string name = Arguments::toName(host, "host");
               const auto number = static_cast<uint16_t>(Arguments::toUnsigned(port, "port", UINT16_MAX, 1));
               return withoutGil([&] { return std::make_unique<PythonTarget>(name, number); });
             }),
             py::arg("host"), py::arg("port"));
  target.def_property_readonly("host", [](const PythonTarget& self) { return self.endpoint().host; });
  target.def_property_readonly("port", [](const PythonTarget& self) { return self.endpoint().port; });
  target.def("__repr__",
             [](const PythonTarget& self) { return "<ta_kvx.Target on " + self.endpoint().text() + ">"; });
  target.def(
      "reconnect", [](PythonTarget& self) { withoutGil([&] { self.target().reconnect(); }); },
      "Opens a new session with the agent at the next access, after the agent was reset or restarted. Other "
      "targets, on other threads too, switch back to their agents as they always do.");
  bindAccesses(target);
  bindRegisters(target);
  bindReservations(target);
  bindTransfers(target);
  bindImages(target);
}

}  // namespace kvx::python

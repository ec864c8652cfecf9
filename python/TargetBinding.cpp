#include "python/TargetBinding.h"

#include <pybind11/pybind11.h>

#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bringup/Addresses.h"
#include "bringup/Error.h"
#include "bringup/Installation.h"
#include "bringup/Numbers.h"
#include "bringup/Ranges.h"
#include "bringup/Registers.h"
#include "bringup/Target.h"
#include "bringup/file/OutputFile.h"
#include "bringup/image/ElfSymbols.h"
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

/// A Target of the bring-up library, as Python holds it, with the firmware's symbols when given.
class PythonTarget {
 public:
  PythonTarget(const std::string& host, uint16_t port, std::unique_ptr<bringup::ElfSymbols> symbols)
      : m_target(common::Endpoint{host, port}, kProcessName), m_symbols(std::move(symbols)) {}

  bringup::Target& target() { return m_target; }
  const common::Endpoint& endpoint() const { return m_target.endpoint(); }
  const bringup::ElfSymbols* symbols() const { return m_symbols.get(); }

  /// `address`: an int, or with the firmware's symbols a str naming SYMBOL or SYMBOL+OFFSET.
  uint64_t address(py::handle address) const {
    if (PyUnicode_Check(address.ptr())) {
      if (!m_symbols)
        throw py::type_error(
            "address must be an int (a str names a symbol of the Target's elf, and it has none)");
      return bringup::parseAddress(Arguments::toName(address, "address"), m_symbols.get(), "address").address;
    }
    return Arguments::toUnsigned(address, "address");
  }

  /// `length` bytes from `address`, which must end within 64 bits and, with a width, start and end
  /// on multiples of it.
  Range range(py::handle address, uint64_t length, unsigned width = 0) const {
    const uint64_t start = this->address(address);
    if (length != 0 && length - 1 > std::numeric_limits<uint64_t>::max() - start) {
      throw py::value_error("address + length must not pass the end of the 64-bit address space");
    }
    const Range where{start, length};
    bringup::checkAligned(where, width);
    return where;
  }

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
  std::unique_ptr<bringup::ElfSymbols> m_symbols;
};

/// An access width: 1, 2, 4 or 8; 0 for None.
unsigned widthOf(py::handle width) {
  if (width.is_none()) return 0;
  const uint64_t bytes = Arguments::toUnsigned(width, "width", bringup::kMaxAccessBytes, 1);
  if ((bytes & (bytes - 1)) != 0)
    throw py::value_error("width must be 1, 2, 4 or 8, not " + std::to_string(bytes));
  return static_cast<unsigned>(bytes);
}

unsigned jobsOf(py::handle jobs) {
  return static_cast<unsigned>(Arguments::toUnsigned(jobs, "jobs", kMaxJobs, 1));
}

/// The most a value of `size` bytes holds.
uint64_t largest(unsigned size) { return size < 8 ? (uint64_t{1} << (8 * size)) - 1 : ~uint64_t{0}; }

/// Binds read_uN and write_uN for accesses of `size` bytes.
void bindSizedAccess(py::class_<PythonTarget>& target, unsigned size) {
  const std::string bits = std::to_string(size * 8);
  target.def(("read_u" + bits).c_str(),
             [size](PythonTarget& self, py::handle address) {
               const Range where = self.range(address, size);
               return withoutGil([&] {
                 uint8_t bytes[bringup::kMaxAccessBytes];
                 self.target().read(where.address, bytes, size);
                 return bringup::fromTargetBytes(bytes, size);
               });
             },
             py::arg("address"),
             ("The unsigned " + bits + "-bit little-endian value at address, in one access.").c_str());
  target.def(("write_u" + bits).c_str(),
             [size](PythonTarget& self, py::handle address, py::handle value) {
               const Range where = self.range(address, size);
               const uint64_t number = Arguments::toUnsigned(value, "value", largest(size));
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
      [](PythonTarget& self, py::handle address, py::handle length, py::handle width) {
        const unsigned bytesAtOnce = widthOf(width);
        const Range where = self.range(address, Arguments::toLength(length, "length"), bytesAtOnce);
        py::bytes result = Arguments::newBytes(where.length, "length");
        auto* out = reinterpret_cast<uint8_t*>(PyBytes_AS_STRING(result.ptr()));
        withoutGil([&] {
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, 1, bytesAtOnce);
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
      py::arg("address"), py::arg("length"), py::arg("width") = py::none(),
      "length bytes from address on, in accesses of at most 8 bytes in address order, each after the first "
      "aligned to 8 bytes; with width, accesses of exactly width bytes.");
  target.def(
      "write",
      [](PythonTarget& self, py::handle address, py::handle data, py::handle width) {
        const unsigned bytesAtOnce = widthOf(width);
        const std::string bytes = Arguments::toBytes(data, "data");
        const Range where = self.range(address, bytes.size(), bytesAtOnce);
        withoutGil([&] {
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, 1, bytesAtOnce);
          transfer.reportingHowFar("written", where.length, [&] {
            transfer.write(where, [&](uint64_t offset, uint8_t* out, size_t count) {
              std::memcpy(out, bytes.data() + offset, count);
            });
          });
        });
      },
      py::arg("address"), py::arg("data"), py::arg("width") = py::none(),
      "Writes the bytes of data from address on, split as read() splits.");
  for (unsigned size : {1u, 2u, 4u, 8u}) bindSizedAccess(target, size);
  target.def(
      "modify",
      [](PythonTarget& self, py::handle address, py::handle size, py::handle set, py::handle clear) {
        const unsigned bytes =
            static_cast<unsigned>(Arguments::toUnsigned(size, "size", bringup::kMaxAccessBytes, 1));
        const Range where = self.range(address, bytes);
        const uint64_t toSet = Arguments::toUnsigned(set, "set", largest(bytes));
        const uint64_t toClear = Arguments::toUnsigned(clear, "clear", largest(bytes));
        const auto [old, changed] =
            withoutGil([&] { return self.target().modify(where.address, bytes, toSet, toClear); });
        return py::make_tuple(old, changed);
      },
      py::arg("address"), py::arg("size") = 4, py::arg("set") = 0, py::arg("clear") = 0,
      "Reads size bytes at address once, writes (old & ~clear) | set back once, and returns (old, new).");
  target.def(
      "read_mem",
      [](PythonTarget& self, py::handle address, py::handle count, py::handle unitSize) {
        const uint64_t at = self.address(address);
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
        const uint64_t at = self.address(address);
        return withoutGil([&] { return self.target().tryUnreserve(at); });
      },
      py::arg("address"), "Releases the reserved block at address; False when no block starts there.");
  target.def(
      "unreserve_all", [](PythonTarget& self) { withoutGil([&] { self.target().unreserveAll(); }); },
      "Releases every reserved block.");
}

/// A pattern for fill or search: bytes, or for search a str's UTF-8 bytes.
std::vector<uint8_t> patternOf(py::handle pattern, size_t most) {
  const std::string bytes =
      PyUnicode_Check(pattern.ptr()) ? pattern.cast<std::string>() : Arguments::toBytes(pattern, "pattern");
  if (bytes.empty() || bytes.size() > most) {
    throw py::value_error("pattern must hold 1 to " + std::to_string(most) + " bytes, not " +
                          std::to_string(bytes.size()));
  }
  return {bytes.begin(), bytes.end()};
}

void bindTransfers(py::class_<PythonTarget>& target) {
  target.def(
      "dump",
      [](PythonTarget& self, py::handle address, py::handle size, py::handle path, py::handle jobs,
         py::handle width) {
        const unsigned bytesAtOnce = widthOf(width);
        const Range where = self.range(address, Arguments::toUnsigned(size, "size"), bytesAtOnce);
        const std::string file = Arguments::toPath(path, "path");
        const unsigned workers = jobsOf(jobs);
        withoutGil([&] {
          bringup::OutputFile out(file);
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, workers, bytesAtOnce);
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
      py::arg("width") = py::none(),
      "Writes the size bytes from address into the file at path, as kvx-ta dump --out does: a new file "
      "appears only when complete, an existing one keeps its mode, a FIFO or device is written in place.");
  target.def(
      "fill",
      [](PythonTarget& self, py::handle address, py::handle size, py::handle pattern, py::handle jobs,
         py::handle width) {
        const unsigned bytesAtOnce = widthOf(width);
        const Range where = self.range(address, Arguments::toUnsigned(size, "size"), bytesAtOnce);
        if (PyUnicode_Check(pattern.ptr())) throw py::type_error("pattern must be bytes-like, not str");
        const std::vector<uint8_t> repeated = patternOf(pattern, bringup::kMaxAccessBytes);
        const unsigned workers = jobsOf(jobs);
        withoutGil([&] {
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, workers, bytesAtOnce);
          transfer.reportingHowFar("written", where.length,
                                   [&] { bringup::fill(transfer, where, repeated); });
        });
      },
      py::arg("address"), py::arg("size"), py::arg("pattern"), py::arg("jobs") = 1,
      py::arg("width") = py::none(),
      "Writes pattern (1 to 8 bytes), repeated from address on, over size bytes.");
  target.def(
      "crc32",
      [](PythonTarget& self, py::handle address, py::handle size, py::handle jobs, py::handle width) {
        const unsigned bytesAtOnce = widthOf(width);
        const Range where = self.range(address, Arguments::toUnsigned(size, "size"), bytesAtOnce);
        const unsigned workers = jobsOf(jobs);
        return withoutGil([&] {
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, workers, bytesAtOnce);
          uint32_t crc = 0;
          transfer.reportingHowFar("read", where.length, [&] { crc = bringup::crc32(transfer, where); });
          return crc;
        });
      },
      py::arg("address"), py::arg("size"), py::arg("jobs") = 1, py::arg("width") = py::none(),
      "The CRC-32 of the size bytes from address: zlib.crc32's.");
  target.def(
      "search",
      [](PythonTarget& self, py::handle address, py::handle size, py::handle pattern, py::handle jobs,
         py::handle width) {
        const unsigned bytesAtOnce = widthOf(width);
        const Range where = self.range(address, Arguments::toUnsigned(size, "size"), bytesAtOnce);
        const std::vector<uint8_t> wanted = patternOf(pattern, bringup::kMaxPattern);
        const unsigned workers = jobsOf(jobs);
        const std::vector<uint64_t> matches = withoutGil([&] {
          bringup::NoProgress progress;
          bringup::Transfer transfer = self.transfer(progress, workers, bytesAtOnce);
          std::vector<uint64_t> found;
          transfer.reportingHowFar("read", where.length,
                                   [&] { found = bringup::search(transfer, where, wanted); });
          return found;
        });
        py::list result;
        for (const uint64_t match : matches) result.append(match);
        return result;
      },
      py::arg("address"), py::arg("size"), py::arg("pattern"), py::arg("jobs") = 1,
      py::arg("width") = py::none(),
      "Every address in the size bytes from address where pattern (bytes, or a str's UTF-8) starts: at any "
      "byte, or "
      "with width only at multiples of it.");
  target.def(
      "wait",
      [](PythonTarget& self, py::handle address, py::handle value, py::handle size, py::handle mask,
         py::handle timeoutMs, py::handle intervalMs) {
        bringup::WaitCondition condition;
        condition.size =
            static_cast<unsigned>(Arguments::toUnsigned(size, "size", bringup::kMaxAccessBytes, 1));
        condition.address = self.range(address, condition.size).address;
        condition.value = Arguments::toUnsigned(value, "value", largest(condition.size));
        if (!mask.is_none()) condition.mask = Arguments::toUnsigned(mask, "mask", largest(condition.size));
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

/// An image command's arguments: the file, an address or offset, and an access width.
bringup::ImageSource imageSource(py::handle path, py::handle address, py::handle width) {
  bringup::ImageSource source;
  source.path = Arguments::toPath(path, "path");
  if (!address.is_none()) source.options.address = Arguments::toUnsigned(address, "address");
  source.options.width = widthOf(width);
  return source;
}

/// Hands the warnings that an image gave to Python's warnings, once the call is over.
void warnAll(const std::vector<std::string>& warnings) {
  for (const std::string& warning : warnings) {
    if (PyErr_WarnEx(PyExc_UserWarning, warning.c_str(), 1) != 0) throw py::error_already_set();
  }
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
          const auto image = bringup::openImage(
              source, transfer, [&](const std::string& warning) { warnings.push_back(warning); });
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
          const auto image = bringup::openImage(
              source, transfer, [&](const std::string& warning) { warnings.push_back(warning); });
          bringup::verifyImage(transfer, *image, source, std::nullopt, "the file has ", "the target ");
        });
        warnAll(warnings);
      },
      py::arg("path"), py::arg("address") = py::none(), py::arg("jobs") = 1, py::arg("width") = py::none(),
      "Compares target memory with the image in the file at path; TargetError at the first byte that "
      "differs.");
}

}  // namespace

void bindTarget(py::module_& module) {
  py::class_<PythonTarget> target(module, "Target",
                                  R"(A target reached through the plug-in: the process that the
plug-in's manager gives for a configuration block with TaType "KVX" naming host and port.

With elf, the firmware's ELF file, every address may be a str naming SYMBOL or SYMBOL+OFFSET, and
symbols maps the names to (address, size). Any thread may use any Target; every call lets other
Python threads run while it waits on the agent, and Ctrl-C stops a long call after the access in
flight. A refused access, or one whose agent is gone, raises TargetError, which says why.)");
  target.def(py::init([](py::handle host, py::handle port, py::handle elf) {
               const std::string name = Arguments::toName(host, "host");
               const auto number = static_cast<uint16_t>(Arguments::toUnsigned(port, "port", UINT16_MAX, 1));
               const std::optional<std::string> file =
                   elf.is_none() ? std::nullopt : std::optional<std::string>(Arguments::toPath(elf, "elf"));
               return withoutGil([&] {
                 return std::make_unique<PythonTarget>(
                     name, number, file ? std::make_unique<bringup::ElfSymbols>(*file) : nullptr);
               });
             }),
             py::arg("host"), py::arg("port"), py::kw_only(), py::arg("elf") = py::none());
  target.def_property_readonly("host", [](const PythonTarget& self) { return self.endpoint().host; });
  target.def_property_readonly("port", [](const PythonTarget& self) { return self.endpoint().port; });
  target.def_property_readonly(
      "symbols",
      [](const PythonTarget& self) {
        py::dict symbols;
        if (self.symbols() == nullptr) return symbols;
        for (const auto& symbol : self.symbols()->symbols()) {
          symbols[symbol.name.c_str()] = py::make_tuple(symbol.address, symbol.size);
        }
        return symbols;
      },
      "The firmware's symbols by name, as (address, size); empty without elf.");
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

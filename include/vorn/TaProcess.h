// The host's handle to a target: reads and writes target memory and registers. Created by a
// plug-in, owned by the host through boost::shared_ptr<TaProcess> and destroyed through the
// virtual destructor. In every data operation the byte count is count * unitSize; true means the
// access was carried out. Thread-safety is the concrete process's to state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "vorn/ExtAddress.h"
#include "vorn/Visibility.h"

namespace vorn {

class VORN_API TaProcess {
 public:
  virtual bool write_mem(const ExtAddress& extAddress, size_t count, unsigned int unitSize,
                         const void* data) = 0;
  virtual bool read_mem(const ExtAddress& extAddress, size_t count, unsigned int unitSize, void* buffer) = 0;
  virtual bool read_piped_mem(const ExtAddress& extAddress, size_t count, unsigned int unitSize,
                              void* buffer) = 0;
  virtual bool write_register(const std::string& registerName, size_t count, unsigned int unitSize,
                              const void* data) = 0;
  virtual bool read_register(const std::string& registerName, size_t count, unsigned int unitSize,
                             void* buffer) = 0;
  virtual bool callbacksAvailable() = 0;
  virtual int32_t getProcessType() = 0;
  virtual ~TaProcess() {}
};

}  // namespace vorn

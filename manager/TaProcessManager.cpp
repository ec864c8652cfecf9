#include "manager/TaProcessManager.h"

#include <utility>

#include <log4cxx/logger.h>
#include <boost/optional.hpp>
#include <boost/pointer_cast.hpp>
#include <boost/thread/lock_guard.hpp>

#include "agent/TaProcessKVX.h"
#include "vorn/ConfigBlock.h"
#include "vorn/TaClient.h"

namespace vorn {
namespace {

// Obtained at load for the host's logging configuration; the manager reports everything
// through its results and writes no record.
log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger("tesk.ta.process.manager");

const char* const kServedMethod = "KVX";
const char* const kTaTypeKey = "TaType";
const char* const kTargetAccessMethodKey = "Target Access Method";
const char* const kServerAddressKey = "ServerAddress";
const char* const kServerPortKey = "ServerPort";

/// The attribute `name` of `config` if it is of type T (or derived from it); empty otherwise.
template <typename T>
boost::shared_ptr<T> attributeAs(ConfigBlock& config, const char* name) {
  return boost::dynamic_pointer_cast<T>(config.getAttribute(name));
}

/// The access method that `config` names: "TaType" as text, else the first value of "Target
/// Access Method" as an enumeration; none when neither can be read.
boost::optional<std::string> accessMethod(ConfigBlock& config) {
  if (auto taType = attributeAs<StringAttribute>(config, kTaTypeKey)) {
    return taType->getValue(0);
  }
  auto method = attributeAs<EnumAttribute>(config, kTargetAccessMethodKey);
  if (!method) {
    return boost::none;
  }
  boost::shared_ptr<EnumValueList> list = method->getValues();
  if (!list) {
    return boost::none;
  }
  // Only the first value counts; at() throws std::out_of_range on an empty list, after the
  // guard has released the list's mutex.
  boost::lock_guard<boost::mutex> guard(list->mutex);
  return list->values.at(0);
}

int32_t admission(const boost::shared_ptr<ConfigBlock>& config) {
  if (!config) {
    return TA_METHOD_MISSING;
  }
  boost::optional<std::string> method = accessMethod(*config);
  if (!method) {
    return TA_METHOD_MISSING;
  }
  return *method == kServedMethod ? TA_METHOD_SERVED : TA_METHOD_NOT_SERVED;
}

}  // namespace

TaProcessManager& TaProcessManager::getInstance() {
  static TaProcessManager instance;
  return instance;
}

int32_t TaProcessManager::registerClient(boost::shared_ptr<TaClient> /*client*/,
                                         boost::shared_ptr<ConfigBlock> config) {
  return admission(config);
}

int32_t TaProcessManager::unregisterClient(const std::string& /*clientName*/,
                                           boost::shared_ptr<ConfigBlock> config) {
  return admission(config);
}

boost::shared_ptr<TaProcess> TaProcessManager::getTaProcess(const std::string& /*name*/,
                                                            boost::shared_ptr<ConfigBlock> config) {
  if (admission(config) != TA_METHOD_SERVED) {
    return boost::shared_ptr<TaProcess>();
  }
  // Both attributes are asked for, even when the first is missing.
  auto address = attributeAs<StringAttribute>(*config, kServerAddressKey);
  auto port = attributeAs<UInt32Attribute>(*config, kServerPortKey);
  if (!address || !port) {
    return boost::shared_ptr<TaProcess>();
  }
  std::string serverAddress = address->getValue(0);
  // The port's 32 bits are kept as they are: 4294967295 arrives as -1.
  const int serverPort = static_cast<int>(port->getValue());
  // Owned as the TaProcessKVX it was created as; deleted through the virtual destructor.
  return boost::shared_ptr<TaProcess>(new TaProcessKVX(std::move(serverAddress), serverPort));
}

}  // namespace vorn

// The configuration block that a host hands the plug-in for an agent endpoint: the one place
// where our hosts, tests and benchmarks build it. Header-only, so that a program may use it
// without linking the rest of the bring-up library.
#pragma once

#include <cstdint>
#include <string>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "common/Endpoint.h"
#include "vorn/ConfigBlock.h"

namespace kvx::bringup {

/// The access method that the plug-in serves.
constexpr const char* kAccessMethod = "KVX";

/// A block that names the access method "KVX" ("TaType"), `host` ("ServerAddress") and `port`
/// ("ServerPort").
inline boost::shared_ptr<vorn::ConfigBlock> servedConfiguration(const std::string& host, uint32_t port) {
  auto config = boost::make_shared<vorn::ConfigBlock>();
  config->setAttribute("TaType", boost::make_shared<vorn::StringAttribute>(kAccessMethod));
  config->setAttribute("ServerAddress", boost::make_shared<vorn::StringAttribute>(host));
  config->setAttribute("ServerPort", boost::make_shared<vorn::UInt32Attribute>(port));
  return config;
}

inline boost::shared_ptr<vorn::ConfigBlock> servedConfiguration(const common::Endpoint& endpoint) {
  return servedConfiguration(endpoint.host, static_cast<uint32_t>(endpoint.port));
}

}  // namespace kvx::bringup

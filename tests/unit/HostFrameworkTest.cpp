// The host framework stand-in as a host and the plug-in rely on it.

#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>

#include "vorn/ConfigBlock.h"
#include "vorn/Plugin.h"

namespace vorn {
namespace {

TEST(HostFrameworkTest, BlockReplacesAttributesByNameAndAnswersEmptyForUnknownNames) {
  ConfigBlock block;
  EXPECT_FALSE(block.getAttribute("TaType"));
  block.setAttribute("TaType", boost::make_shared<StringAttribute>("JTAG"));
  block.setAttribute("TaType", boost::make_shared<UInt32Attribute>(5));
  auto attribute = block.getAttribute("TaType");
  EXPECT_FALSE(boost::dynamic_pointer_cast<StringAttribute>(attribute));
  ASSERT_TRUE(boost::dynamic_pointer_cast<UInt32Attribute>(attribute));
  EXPECT_EQ(boost::dynamic_pointer_cast<UInt32Attribute>(attribute)->getValue(), 5u);
  EXPECT_FALSE(block.getAttribute("tatype")) << "names are case-sensitive";
}

TEST(HostFrameworkTest, NewUuidIsUniqueAcrossThreads) {
  std::vector<std::vector<std::string>> perThread(4);
  std::vector<std::thread> threads;
  for (auto& ids : perThread) {
    threads.emplace_back([&ids] {
      for (int i = 0; i < 500; ++i) {
        ids.push_back(Plugin::new_uuid());
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  std::set<std::string> all;
  for (const auto& ids : perThread) {
    for (const auto& id : ids) {
      EXPECT_EQ(id.size(), 36u);
      all.insert(id);
    }
  }
  EXPECT_EQ(all.size(), 2000u);
}

}  // namespace
}  // namespace vorn

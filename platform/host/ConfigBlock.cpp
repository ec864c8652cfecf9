// Stand-in for the host framework library: the configuration classes.

#include "vorn/ConfigBlock.h"

#include <utility>

namespace vorn {

ConfigAttribute::~ConfigAttribute() = default;

StringAttribute::StringAttribute(std::string value) : m_value(std::move(value)) {}
StringAttribute::~StringAttribute() = default;
std::string StringAttribute::getValue(int /*index*/) { return m_value; }

UInt32Attribute::UInt32Attribute(uint32_t value) : m_value(value) {}
UInt32Attribute::~UInt32Attribute() = default;
uint32_t UInt32Attribute::getValue() { return m_value; }

EnumAttribute::EnumAttribute(boost::shared_ptr<EnumValueList> values) : m_values(std::move(values)) {}
EnumAttribute::~EnumAttribute() = default;
boost::shared_ptr<EnumValueList> EnumAttribute::getValues() { return m_values; }

ConfigBlock::ConfigBlock() = default;
ConfigBlock::~ConfigBlock() = default;

void ConfigBlock::setAttribute(const std::string& name, boost::shared_ptr<ConfigAttribute> attribute) {
  m_attributes[name] = std::move(attribute);
}

boost::shared_ptr<ConfigAttribute> ConfigBlock::getAttribute(const std::string& name) {
  auto it = m_attributes.find(name);
  return it == m_attributes.end() ? boost::shared_ptr<ConfigAttribute>() : it->second;
}

}  // namespace vorn

// Configuration blocks of the host framework: a named set of typed attributes that the host
// hands to a plug-in. A plug-in holds blocks and attributes only through boost::shared_ptr and
// narrows an attribute with boost::dynamic_pointer_cast; an attribute of another type counts as
// missing. A block is not synchronised: the host does not change a block while it lends it out.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include "vorn/Visibility.h"

namespace vorn {

/// Polymorphic base of every attribute in a configuration block.
class VORN_API ConfigAttribute {
 public:
  ConfigAttribute() = default;
  virtual ~ConfigAttribute();
};

/// A text attribute. The index selects one of several values; this framework keeps one.
class VORN_API StringAttribute : public ConfigAttribute {
 public:
  explicit StringAttribute(std::string value = "");
  ~StringAttribute() override;

  virtual std::string getValue(int index);

 private:
  std::string m_value;
};

/// An unsigned 32-bit attribute.
class VORN_API UInt32Attribute : public ConfigAttribute {
 public:
  explicit UInt32Attribute(uint32_t value = 0);
  ~UInt32Attribute() override;

  virtual uint32_t getValue();

 private:
  uint32_t m_value;
};

/// The values of an enumeration attribute. Readers lock `mutex` while they look at `values`.
struct VORN_API EnumValueList {
  std::vector<std::string> values;
  boost::mutex mutex;
};

/// An enumeration attribute; its value list may be absent (an empty pointer).
class VORN_API EnumAttribute : public ConfigAttribute {
 public:
  explicit EnumAttribute(boost::shared_ptr<EnumValueList> values = boost::shared_ptr<EnumValueList>());
  ~EnumAttribute() override;

  virtual boost::shared_ptr<EnumValueList> getValues();

 private:
  boost::shared_ptr<EnumValueList> m_values;
};

/// A named set of attributes.
class VORN_API ConfigBlock {
 public:
  ConfigBlock();
  virtual ~ConfigBlock();

  /// Stores `attribute` under `name`, replacing an attribute of the same name.
  void setAttribute(const std::string& name, boost::shared_ptr<ConfigAttribute> attribute);

  /// The attribute called `name`, or an empty pointer when the block has none.
  virtual boost::shared_ptr<ConfigAttribute> getAttribute(const std::string& name);

 private:
  std::map<std::string, boost::shared_ptr<ConfigAttribute>> m_attributes;
};

}  // namespace vorn

// Stand-in for the host framework library: the framework's exception.

#include "vorn/Exception.h"

namespace vorn {

Exception::Exception(const char* file, unsigned int line, const std::string& message)
    : m_file(file != nullptr ? file : ""), m_line(line), m_message(message) {}

Exception::~Exception() = default;

const char* Exception::what() const noexcept { return m_message.c_str(); }
const std::string& Exception::getFile() const { return m_file; }
unsigned int Exception::getLine() const { return m_line; }
const std::string& Exception::getMessage() const { return m_message; }

}  // namespace vorn

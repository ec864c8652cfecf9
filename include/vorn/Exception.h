// The host framework's error: where it was thrown (source file name and line) and what failed.
// Thrown by value; what() returns the message.
#pragma once

#include <exception>
#include <string>

#include "vorn/Visibility.h"

namespace vorn {

class VORN_API Exception : public std::exception {
 public:
  Exception(const char* file, unsigned int line, const std::string& message);
  ~Exception() override;

  const char* what() const noexcept override;

  const std::string& getFile() const;
  unsigned int getLine() const;
  const std::string& getMessage() const;

 private:
  std::string m_file;
  unsigned int m_line;
  std::string m_message;
};

}  // namespace vorn

#ifndef CORE_HOST_BROWSER_TESTING_SCOPED_VARIABLE_H_
#define CORE_HOST_BROWSER_TESTING_SCOPED_VARIABLE_H_

#include <stdlib.h>

#include <optional>
#include <string>

namespace varnic::host::testing {

// Gives an environment variable another value while it lives. For a test without other threads
// that read the environment.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const std::string& value) : name_(name) {
    const char* const former = ::getenv(name);
    if (former != nullptr) former_ = former;
    ::setenv(name, value.c_str(), 1);
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;
  ~ScopedVariable() {
    if (former_) {
      ::setenv(name_, former_->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }

 private:
  const char* const name_;
  std::optional<std::string> former_;
};

}  // namespace varnic::host::testing

#endif  // CORE_HOST_BROWSER_TESTING_SCOPED_VARIABLE_H_

#pragma once

#include <stdexcept>

#include "Nimbo/Export.h"
#include "Nimbo/String.h"

namespace Nimbo {

// Base of the platform's typed exceptions: bad input from a caller or a failure of the
// environment, each with a message that says what went wrong and where.
class VESK_EXPORT Exception : public std::runtime_error {
 public:
  explicit Exception(const String& what) : std::runtime_error(what) {}
};

// A shared-memory record or header failed its integrity check. The collection that found
// it is still usable; the caller reports it through doCorruptionDetected() and goes on.
class VESK_EXPORT CorruptionDetectedException : public Exception {
 public:
  using Exception::Exception;
};

// A mutator was handed a null object where one is required.
class VESK_EXPORT NullMutatorArgumentException : public Exception {
 public:
  using Exception::Exception;
};

// A bounded collection is full; the refused record was not stored and nothing else changed.
class VESK_EXPORT CapacityExceededException : public Exception {
 public:
  using Exception::Exception;
};

// An argument is outside what the operation accepts (malformed path, out-of-order key...).
class VESK_EXPORT InvalidArgumentException : public Exception {
 public:
  using Exception::Exception;
};

// A system call failed; the message carries the call, the object and strerror.
class VESK_EXPORT SystemException : public Exception {
 public:
  SystemException(const String& what, int error) : Exception(what), error_(error) {}
  int error() const noexcept { return error_; }

 private:
  int error_;
};

}  // namespace Nimbo

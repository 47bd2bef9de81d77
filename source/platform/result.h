#pragma once

#include <expected>
#include <string>
#include <utility>

namespace platform {

enum class ErrorKind {
  Generic,
  IllegalArgument,
  OutOfMemory,
  Cancelled,
  Io,
};

// An error travels as a value: a kind for callers that branch on it, and the exact text
// that front-ends show to the user.
struct Error {
  ErrorKind kind = ErrorKind::Generic;
  std::string message;
};

// [[nodiscard]]: an error that nobody looks at is lost, so a dropped result is a warning;
// code that means to drop one says so with `(void)` and a reason.
template <class T>
class [[nodiscard]] Result : public std::expected<T, Error> {
  using Base = std::expected<T, Error>;

 public:
  using Base::Base;
  Result(const Base& other) : Base(other) {}   // NOLINT: results of the standard's monadic calls
  Result(Base&& other) : Base(std::move(other)) {}  // NOLINT
};
using Status = Result<void>;

inline std::unexpected<Error> MakeError(ErrorKind kind, std::string message) {
  return std::unexpected<Error>(Error{kind, std::move(message)});
}
inline std::unexpected<Error> GenericError(std::string message) {
  return MakeError(ErrorKind::Generic, std::move(message));
}
inline std::unexpected<Error> IllegalArgumentError(std::string message) {
  return MakeError(ErrorKind::IllegalArgument, std::move(message));
}
inline std::unexpected<Error> OutOfMemoryError(std::string message = "Out of memory!") {
  return MakeError(ErrorKind::OutOfMemory, std::move(message));
}
inline std::unexpected<Error> CancelledError(std::string message) {
  return MakeError(ErrorKind::Cancelled, std::move(message));
}
inline std::unexpected<Error> IoError(std::string message) {
  return MakeError(ErrorKind::Io, std::move(message));
}

inline Status Ok() { return {}; }

}  // namespace platform

// Returns the error of an expression that yields a Result, otherwise goes on.
#define VLGD_RETURN_IF_ERROR(expr)                                      \
  do {                                                                  \
    if (auto vlgd_status_ = (expr); !vlgd_status_)                      \
      return std::unexpected<::platform::Error>(std::move(vlgd_status_).error()); \
  } while (false)

#define VLGD_CONCAT_INNER(a, b) a##b
#define VLGD_CONCAT(a, b) VLGD_CONCAT_INNER(a, b)

// Declares `lhs` from the value of a Result, or returns its error.
#define VLGD_ASSIGN_OR_RETURN(lhs, expr)                                             \
  auto VLGD_CONCAT(vlgd_result_, __LINE__) = (expr);                                 \
  if (!VLGD_CONCAT(vlgd_result_, __LINE__))                                          \
    return std::unexpected<::platform::Error>(std::move(VLGD_CONCAT(vlgd_result_, __LINE__)).error()); \
  lhs = std::move(*VLGD_CONCAT(vlgd_result_, __LINE__))

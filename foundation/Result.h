#pragma once
// Result<T>: a value or an Error. The one way failures are returned inside the project; nothing
// throws across a module boundary.
//
//   Result<UniqueFd> fd = sys::open(path, O_RDONLY);
//   if (!fd) return fd.error();
//
// KRV_TRY(declaration, expression) evaluates a Result, returns its error from the calling function
// on failure and otherwise binds the value: KRV_TRY(UniqueFd fd, sys::open(path, O_RDONLY));
// KRV_TRY_VOID(expression) does the same for Result<void>.
//
// value() (and *, ->) on a Result that holds an error, or error() on one that holds a value, is a
// programming error: it ends the process in every build type with a message that names it, and
// never reads the wrong alternative.

#include <type_traits>
#include <utility>
#include <variant>

#include "foundation/Error.h"

namespace krv {

namespace detail {
// Reports the misuse of a Result on standard error and aborts.
[[noreturn]] void resultMisuse(const char* access, const Error* held);
}  // namespace detail

template <class T>
class [[nodiscard]] Result {
 public:
  using ValueType = T;

  Result(T value) : m_storage(std::in_place_index<0>, std::move(value)) {}      // NOLINT
  Result(Error error) : m_storage(std::in_place_index<1>, std::move(error)) {}  // NOLINT

  bool ok() const { return m_storage.index() == 0; }
  explicit operator bool() const { return ok(); }

  T& value() & {
    checkValue();
    return *std::get_if<0>(&m_storage);
  }
  const T& value() const& {
    checkValue();
    return *std::get_if<0>(&m_storage);
  }
  T&& value() && {
    checkValue();
    return std::move(*std::get_if<0>(&m_storage));
  }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T&& operator*() && { return std::move(*this).value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

  const Error& error() const& {
    if (ok()) detail::resultMisuse("error() of a Result that holds a value", nullptr);
    return *std::get_if<1>(&m_storage);
  }
  Error&& error() && {
    if (ok()) detail::resultMisuse("error() of a Result that holds a value", nullptr);
    return std::move(*std::get_if<1>(&m_storage));
  }

  T valueOr(T fallback) && { return ok() ? std::move(value()) : std::move(fallback); }

 private:
  void checkValue() const {
    if (!ok())
      detail::resultMisuse("value() of a Result that holds an error", std::get_if<1>(&m_storage));
  }

  std::variant<T, Error> m_storage;
};

template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Error error) : m_error(std::move(error)), m_failed(true) {}  // NOLINT

  bool ok() const { return !m_failed; }
  explicit operator bool() const { return ok(); }
  const Error& error() const& {
    if (!m_failed) detail::resultMisuse("error() of a Status that holds success", nullptr);
    return m_error;
  }
  Error&& error() && {
    if (!m_failed) detail::resultMisuse("error() of a Status that holds success", nullptr);
    return std::move(m_error);
  }

 private:
  Error m_error{std::string(), 0};
  bool m_failed = false;
};

using Status = Result<void>;

}  // namespace krv

#define KRV_CONCAT_INNER(a, b) a##b
#define KRV_CONCAT(a, b) KRV_CONCAT_INNER(a, b)

#define KRV_TRY_IMPL(temporary, declaration, expression)    \
  auto temporary = (expression);                            \
  if (!temporary.ok()) return std::move(temporary).error(); \
  declaration = std::move(temporary).value()

#define KRV_TRY(declaration, expression) \
  KRV_TRY_IMPL(KRV_CONCAT(krvTryResult_, __LINE__), declaration, expression)

#define KRV_TRY_VOID(expression)                                    \
  do {                                                              \
    auto krvTryStatus = (expression);                               \
    if (!krvTryStatus.ok()) return std::move(krvTryStatus).error(); \
  } while (false)

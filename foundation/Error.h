#pragma once
// The error/result object: a domain, an integer code and a dictionary of user information.
//
// It is both the error carried by Result<T> inside a process and the object that travels to a
// client (class name "NSError" on the wire): acknowledgements, intermediate reports and command
// results are all error objects, code 0 meaning success. An Error is an immutable value once
// built; copies are independent. Not synchronised.

#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/Archivable.h"
#include "foundation/Value.h"

namespace krv {

class Decoder;
template <class T>
class Result;

// The domain of errors whose code is an errno value of this host.
inline constexpr std::string_view kPosixErrorDomain = "NSPOSIXErrorDomain";

class Error final : public Archivable {
 public:
  static constexpr std::string_view kClassName = "NSError";

  Error(std::string domain, std::int64_t code, Dictionary userInfo = {});

  // An error of the POSIX domain. `operation` names the failed call for logs and diagnostics; it
  // never travels on the wire.
  static Error posix(int errnoValue, std::string_view operation = {});
  // The POSIX error for the errno current at the call.
  static Error fromErrno(std::string_view operation);

  const std::string& domain() const { return m_domain; }
  std::int64_t code() const { return m_code; }
  const Dictionary& userInfo() const { return m_userInfo; }
  const std::string& operation() const { return m_operation; }

  bool isPosix() const { return m_domain == kPosixErrorDomain; }
  bool is(std::string_view domain, std::int64_t code) const {
    return m_code == code && m_domain == domain;
  }

  // "Error Domain=<domain> Code=<code> UserInfo={...}", for logs and the command-line client.
  std::string description() const;

  std::string_view className() const override { return kClassName; }
  void encode(Encoder& encoder) const override;
  static Result<ObjectRef> decode(Decoder& decoder);

  bool operator==(const Error& other) const {
    return m_code == other.m_code && m_domain == other.m_domain && m_userInfo == other.m_userInfo;
  }

 private:
  std::string m_domain;
  std::int64_t m_code = 0;
  Dictionary m_userInfo;
  std::string m_operation;
};

}  // namespace krv

#include "foundation/Error.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/Coding.h"

namespace krv {

Error::Error(std::string domain, std::int64_t code, Dictionary userInfo)
    : m_domain(std::move(domain)), m_code(code), m_userInfo(std::move(userInfo)) {}

Error Error::posix(int errnoValue, std::string_view operation) {
  Error error(std::string(kPosixErrorDomain), errnoValue);
  error.m_operation = std::string(operation);
  return error;
}

Error Error::fromErrno(std::string_view operation) { return posix(errno, operation); }

std::string Error::description() const {
  std::string text = "Error Domain=" + m_domain + " Code=" + std::to_string(m_code);
  if (isPosix()) {
    text += " \"";
    text += std::strerror(static_cast<int>(m_code));
    text += '"';
  }
  if (!m_operation.empty()) text += " (" + m_operation + ")";
  if (!m_userInfo.empty()) text += " UserInfo=" + Value(m_userInfo).description();
  return text;
}

void Error::encode(Encoder& encoder) const {
  encoder.encodeString("NSDomain", m_domain);
  encoder.encodeInteger("NSCode", m_code);
  encoder.encodeDictionary("NSUserInfo", m_userInfo);
}

Result<ObjectRef> Error::decode(Decoder& decoder) {
  KRV_TRY(std::string domain, decoder.decodeString("NSDomain"));
  KRV_TRY(std::int64_t code, decoder.decodeInteger("NSCode"));
  KRV_TRY(Dictionary userInfo, decoder.decodeDictionary("NSUserInfo"));
  return ObjectRef(std::make_shared<Error>(std::move(domain), code, std::move(userInfo)));
}

namespace detail {

void resultMisuse(const char* access, const Error* held) {
  std::string text = "*** Misuse of a result: ";
  text += access;
  if (held != nullptr) text += " (" + held->description() + ")";
  text += '\n';
  std::fputs(text.c_str(), stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace detail

}  // namespace krv

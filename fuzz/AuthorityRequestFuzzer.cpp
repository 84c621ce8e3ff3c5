// Feeds arbitrary bytes to the authorization service's decoders, as a hostile local user would:
// the request decoder (every connection's first message), the answer decoder (the reply to a
// password prompt) and, for the client library, the decoder of the service's messages. Whatever
// a decoder accepts must survive a round trip through its encoder unchanged.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "authorization/AuthorityProtocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace krv::auth;
  const std::span<const std::uint8_t> bytes(data, size);

  DecodedRequest decoded = decodeRequest(bytes);
  if (decoded.status == kStatusSuccess) {
    DecodedRequest again = decodeRequest(encodeRequest(decoded.request));
    const Request& first = decoded.request;
    const Request& second = again.request;
    if (again.status != kStatusSuccess || second.operation != first.operation ||
        second.token != first.token || second.right != first.right || second.flags != first.flags ||
        second.user != first.user || second.account != first.account ||
        second.definition != first.definition) {
      std::abort();
    }
  }

  krv::Data answerBytes(data, data + size);
  krv::Result<Answer> answer = decodeAnswer(answerBytes);
  for (std::uint8_t byte : answerBytes) {
    if (byte != 0) std::abort();  // the payload is wiped whatever it held
  }
  if (answer) {
    krv::Data encoded = encodeAnswer(answer->kind, answer->response.view());
    krv::Result<Answer> again = decodeAnswer(encoded);
    if (!again || again->kind != answer->kind ||
        again->response.view() != answer->response.view()) {
      std::abort();
    }
  }

  krv::Result<ServiceMessage> message = decodeServiceMessage(bytes);
  if (message && message->prompt) {
    // What reaches a terminal is already made safe, and stays so.
    if (sanitizeMessage(message->prompt->message) != message->prompt->message) std::abort();
  }
  return 0;
}

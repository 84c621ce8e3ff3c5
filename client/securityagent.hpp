#pragma once
// securityagent.hpp - a header-only C++ interface over the C interface of securityagent.h.
//
// RAII owners for the client, the command and the final message; std::function callbacks; values
// read through securityagent::ValueRef. Nothing but the C interface crosses the library boundary:
// this header is compiled into the application.
//
//   securityagent::Client client;                  // throws std::system_error (ENOENT) when the
//   securityagent::Command command(3);             // component is not installed
//   command.add(std::int64_t{3});
//   command.onProgress([](double fraction) { ... });
//   securityagent::Message result = command.run(client);
//   if (result.succeeded()) ...
//
// Errors: constructors and run() throw std::system_error with the errno of the C function (and
// std::bad_alloc for ENOMEM); accessors never throw. A command's cancel() and abort() may be called
// from another thread while run() runs; everything else is used by one thread at a time. An
// exception thrown by a callback is caught at the boundary: the run is cancelled and the exception
// is thrown again from run() once the run has ended.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "securityagent.h"

namespace securityagent {

namespace detail {
[[noreturn]] inline void throwErrno(const char* what) {
  int code = errno;
  if (code == ENOMEM) throw std::bad_alloc();
  throw std::system_error(code, std::generic_category(), what);
}
}  // namespace detail

// A read-only view of one value inside a message; valid as long as the message.
class ValueRef {
 public:
  ValueRef() = default;
  explicit ValueRef(const sa_value* value) : m_value(value) {}

  explicit operator bool() const { return m_value != nullptr; }
  int type() const { return sa_value_type(m_value); }
  std::int64_t integer() const { return sa_value_integer(m_value); }
  std::uint64_t unsignedInteger() const { return sa_value_unsigned(m_value); }
  double real() const { return sa_value_real(m_value); }
  bool boolean() const { return sa_value_boolean(m_value) != 0; }
  // The bytes of a string or data value (a path in either form); empty for other types.
  std::string_view bytes() const {
    std::size_t length = 0;
    const void* bytes = sa_value_bytes(m_value, &length);
    return bytes ? std::string_view(static_cast<const char*>(bytes), length) : std::string_view();
  }
  std::size_t size() const { return sa_value_count(m_value); }
  ValueRef operator[](std::size_t index) const { return ValueRef(sa_value_at(m_value, index)); }
  ValueRef operator[](const char* key) const { return ValueRef(sa_value_lookup(m_value, key)); }
  std::string_view keyAt(std::size_t index) const {
    std::size_t length = 0;
    const char* key = sa_value_key_at(m_value, index, &length);
    return key ? std::string_view(key, length) : std::string_view();
  }
  std::string_view className() const {
    const char* name = sa_value_class_name(m_value);
    return name ? std::string_view(name) : std::string_view();
  }

 private:
  const sa_value* m_value = nullptr;
};

// A message that is not owned: a report handed to a payload callback.
class MessageRef {
 public:
  explicit MessageRef(const sa_message* message) : m_message(message) {}

  std::string_view domain() const { return sa_message_domain(m_message); }
  std::int64_t code() const { return sa_message_code(m_message); }
  bool succeeded() const { return sa_message_is_success(m_message) != 0; }
  std::size_t size() const { return sa_message_count(m_message); }
  std::string_view keyAt(std::size_t index) const {
    std::size_t length = 0;
    const char* key = sa_message_key_at(m_message, index, &length);
    return key ? std::string_view(key, length) : std::string_view();
  }
  ValueRef valueAt(std::size_t index) const {
    return ValueRef(sa_message_value_at(m_message, index));
  }
  ValueRef operator[](const char* key) const { return ValueRef(sa_message_lookup(m_message, key)); }
  std::string description() const {
    std::unique_ptr<char, decltype(&std::free)> text(sa_message_describe(m_message), &std::free);
    return text ? std::string(text.get()) : std::string();
  }
  const sa_message* get() const { return m_message; }

 private:
  const sa_message* m_message;
};

// The final message of a run, owned.
class Message : public MessageRef {
 public:
  explicit Message(sa_message* message) : MessageRef(message), m_owner(message, &sa_message_free) {}

 private:
  std::unique_ptr<sa_message, decltype(&sa_message_free)> m_owner;
};

class Client {
 public:
  // The installed daemon's socket, or another path.
  explicit Client(const char* socketPath = nullptr)
      : m_client(sa_client_new(socketPath), &sa_client_free) {
    if (!m_client) detail::throwErrno("sa_client_new");
  }
  sa_client* get() const { return m_client.get(); }

 private:
  std::unique_ptr<sa_client, decltype(&sa_client_free)> m_client;
};

class Command {
 public:
  explicit Command(std::uint32_t code) : m_command(sa_command_new(code), &sa_command_free) {
    if (!m_command) detail::throwErrno("sa_command_new");
  }
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // Arguments, in order: a string (any bytes), an integer, a real, a boolean, data.
  Command& add(std::string_view text) {
    check(sa_command_add_string(get(), text.data(), text.size()));
    return *this;
  }
  Command& add(const char* text) { return add(std::string_view(text)); }
  Command& add(std::int64_t value) {
    check(sa_command_add_integer(get(), value));
    return *this;
  }
  Command& add(double value) {
    check(sa_command_add_real(get(), value));
    return *this;
  }
  Command& add(bool value) {
    check(sa_command_add_boolean(get(), value ? 1 : 0));
    return *this;
  }
  Command& addData(const void* bytes, std::size_t length) {
    check(sa_command_add_data(get(), bytes, length));
    return *this;
  }
  void setDeauthorize(bool deauthorize) { sa_command_set_deauthorize(get(), deauthorize ? 1 : 0); }

  void onProgress(std::function<void(double)> callback) {
    m_progress = std::move(callback);
    sa_command_set_progress_callback(get(), m_progress ? &Command::progressTrampoline : nullptr,
                                     this);
  }
  void onOutput(std::function<void(int channel, std::string_view bytes)> callback) {
    m_output = std::move(callback);
    sa_command_set_output_callback(get(), m_output ? &Command::outputTrampoline : nullptr, this);
  }
  void onPayload(std::function<void(const MessageRef&)> callback) {
    m_payload = std::move(callback);
    sa_command_set_payload_callback(get(), m_payload ? &Command::payloadTrampoline : nullptr, this);
  }

  // Runs to the end; the final message (failures included, see securityagent.h).
  Message run(const Client& client) {
    m_failure = nullptr;
    sa_message* result = sa_command_run(client.get(), get());
    if (result == nullptr) detail::throwErrno("sa_command_run");
    Message message(result);
    if (m_failure) std::rethrow_exception(std::exchange(m_failure, nullptr));
    return message;
  }
  void cancel() { sa_command_cancel(get()); }
  // true when the marker is in place; errno tells why not otherwise.
  bool abort() { return sa_command_abort(get()) == 0; }

  sa_command* get() const { return m_command.get(); }

 private:
  static void check(int status) {
    if (status != 0) detail::throwErrno("sa_command_add");
  }
  template <class Call>
  void guarded(Call call) {
    if (m_failure) return;
    try {
      call();
    } catch (...) {
      m_failure = std::current_exception();
      cancel();
    }
  }
  static void progressTrampoline(double fraction, void* self) {
    auto* command = static_cast<Command*>(self);
    command->guarded([&] { command->m_progress(fraction); });
  }
  static void outputTrampoline(int channel, const void* bytes, std::size_t length, void* self) {
    auto* command = static_cast<Command*>(self);
    command->guarded([&] {
      command->m_output(channel, std::string_view(static_cast<const char*>(bytes), length));
    });
  }
  static void payloadTrampoline(const sa_message* report, void* self) {
    auto* command = static_cast<Command*>(self);
    command->guarded([&] { command->m_payload(MessageRef(report)); });
  }

  std::unique_ptr<sa_command, decltype(&sa_command_free)> m_command;
  std::function<void(double)> m_progress;
  std::function<void(int, std::string_view)> m_output;
  std::function<void(const MessageRef&)> m_payload;
  std::exception_ptr m_failure;
};

}  // namespace securityagent

// The C interface of the client library (client/securityagent.h): a thin layer over the client
// session of protocol/KRVSecurityAgent. It adds what a C caller needs: opaque handles, callbacks
// for the kinds of report, a cancellation that another thread can trigger, and read-only access to
// the values of a message. No exception leaves a function of this file: each entry point catches
// what the layers below may throw (memory running out) and answers ENOMEM.

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>

#include "authorization/PromptHandler.h"
#include "client/securityagent.h"
#include "filesystem/KRVFileSystemObjectDescription.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "foundation/UserInformationKeys.h"
#include "foundation/Wipe.h"
#include "protocol/CommandCodes.h"
#include "protocol/KRVSecurityAgent.h"

using krv::Error;
using krv::KRVPrivilegedCommand;
using krv::KRVSecurityAgent;
using krv::Number;
using krv::Value;
using krv::ValueType;

struct sa_client {
  std::string socketPath;
};

struct sa_command {
  std::unique_ptr<KRVPrivilegedCommand> command;
  bool deauthorize = false;
  sa_progress_callback progress = nullptr;
  void* progressData = nullptr;
  sa_output_callback output = nullptr;
  void* outputData = nullptr;
  sa_payload_callback payload = nullptr;
  void* payloadData = nullptr;

  // Shared with sa_command_cancel() and sa_command_abort() on other threads.
  std::mutex mutex;
  bool running = false;
  bool cancelled = false;
  bool markerCreated = false;
  std::string markerPath;  // the abort marker of the run in progress
  krv::UniqueFd wakeUp;    // an event counter that a cancellation signals
};

struct sa_message {
  std::optional<Error> owned;  // the final result
  const Error* error = nullptr;
};

namespace {

const Value* unwrap(const sa_value* value) { return reinterpret_cast<const Value*>(value); }
const sa_value* wrap(const Value* value) { return reinterpret_cast<const sa_value*>(value); }

int failWith(int errnoValue) {
  errno = errnoValue;
  return -1;
}

// The argument that names the abort marker, for the commands that have one.
std::optional<std::size_t> markerArgumentIndex(std::uint32_t code) {
  if (code == krv::kCommandCountFileObjects) return 1;
  if (code == krv::kCommandCompareFolders) return 2;
  return std::nullopt;
}

int addArgument(sa_command* command, Value value) {
  if (command == nullptr) return failWith(EINVAL);
  std::lock_guard<std::mutex> lock(command->mutex);
  if (command->running) return failWith(EBUSY);
  krv::Array arguments = command->command->arguments();
  arguments.push_back(std::move(value));
  command->command->setArguments(std::move(arguments));
  return 0;
}

template <class Build>
int addArgumentCatching(sa_command* command, Build build) {
  try {
    return addArgument(command, build());
  } catch (const std::bad_alloc&) {
    return failWith(ENOMEM);
  }
}

std::optional<std::string> bytesOf(const Value* value) {
  if (value == nullptr) return std::nullopt;
  if (const std::string* text = value->asString()) return *text;
  if (const krv::Data* data = value->asData()) return std::string(data->begin(), data->end());
  return std::nullopt;
}

// Hands one intermediate report to the callbacks that want it.
void deliverReport(sa_command& command, const Error& report) {
  const krv::Dictionary& info = report.userInfo();
  bool other = false;
  for (const auto& [key, value] : info) {
    if (key == krv::key::kCurrentProgress) {
      const Number* number = value.asNumber();
      if (number != nullptr && command.progress != nullptr) {
        command.progress(number->doubleValue(), command.progressData);
      }
    } else if (key != krv::key::kOutputChannel && key != krv::key::kErrorChannel) {
      other = true;
    }
  }
  if (command.output != nullptr) {
    const std::string_view channels[2] = {krv::key::kOutputChannel, krv::key::kErrorChannel};
    for (int channel = 0; channel < 2; ++channel) {
      const Value* value = info.find(channels[channel]);
      if (value == nullptr) continue;
      if (const krv::Data* data = value->asData()) {
        if (!data->empty())
          command.output(channel + 1, data->data(), data->size(), command.outputData);
      } else if (const std::string* text = value->asString()) {
        if (!text->empty())
          command.output(channel + 1, text->data(), text->size(), command.outputData);
      }
    }
  }
  if (other && command.payload != nullptr) {
    sa_message view;
    view.error = &report;
    command.payload(&view, command.payloadData);
  }
}

bool cancelRequested(sa_command& command) {
  std::lock_guard<std::mutex> lock(command.mutex);
  return command.cancelled;
}

// Follows the response pipe until the final message, a cancellation or a failure.
Error followPipe(sa_command& command, const KRVSecurityAgent& agent, const std::string& path) {
  // Opened without waiting for the daemon's writer, so that a cancellation is not stuck in open();
  // poll() reports the pipe only once a writer has come and written or gone. The daemon makes the
  // pipe itself: a link or anything but a FIFO at its path is not followed, read or removed.
  krv::Result<krv::UniqueFd> pipe = krv::sys::open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
  if (!pipe) return pipe.error();
  krv::Result<struct stat> status = krv::sys::fstat(pipe->get());
  if (!status) return status.error();
  if (!S_ISFIFO(status->st_mode)) return Error::posix(EINVAL, "response pipe");
  krv::Status blocking = krv::sys::setNonBlocking(pipe->get(), false);
  if (!blocking) return blocking.error();

  Error last = KRVSecurityAgent::transportError(krv::kTransportPipeMessageInvalid);
  for (;;) {
    pollfd entries[2] = {{pipe->get(), POLLIN, 0}, {command.wakeUp.get(), POLLIN, 0}};
    krv::Result<std::size_t> ready = krv::sys::poll(entries, -1);
    if (!ready) {
      if (ready.error().code() == EINTR) continue;
      last = ready.error();
      break;
    }
    if (entries[1].revents != 0 && cancelRequested(command)) {
      last = Error::posix(ECANCELED, "cancelled");
      break;
    }
    if (entries[0].revents == 0) continue;
    if (!agent.isContinuingCommandExecutionViaPipe(pipe->get(), &last)) break;
    deliverReport(command, last);
  }
  KRVSecurityAgent::closePipe(std::move(*pipe), path);
  return last;
}

Error runCommand(sa_client& client, sa_command& command) {
  if (cancelRequested(command)) return Error::posix(ECANCELED, "cancelled");
  std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(client.socketPath);
  if (!agent) return Error::posix(ENOENT, "no daemon socket");
  // The comparison's reports carry snapshots; every other report is a superset's subset.
  agent->setResponseClasses(&krv::KRVFileSystemObjectDescription::comparisonClasses());
  Error acknowledgement =
      agent->startExecutionOfPrivilegedCommand(*command.command, command.deauthorize);
  std::optional<std::string> path =
      KRVSecurityAgent::pathForResponsePipeFromExecutionAcknowledgeError(acknowledgement);
  if (!path) {
    command.command->discardAuthorization();
    return acknowledgement;
  }
  Error result = followPipe(command, *agent, *path);
  command.command->discardAuthorization();
  return result;
}

void drainWakeUp(sa_command& command) {
  std::uint8_t counter[8];
  (void)krv::sys::read(command.wakeUp.get(), counter);
}

std::mutex g_promptMutex;

}  // namespace

extern "C" {

const char* sa_version(void) { return "1.0"; }

sa_client* sa_client_new(const char* socket_path) {
  try {
    std::string path = socket_path != nullptr ? std::string(socket_path)
                                              : KRVSecurityAgent::pathForCommunicationSocket();
    if (path.empty() || !KRVSecurityAgent::init(path)) {
      errno = ENOENT;
      return nullptr;
    }
    return new sa_client{std::move(path)};
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return nullptr;
  }
}

void sa_client_free(sa_client* client) { delete client; }

sa_command* sa_command_new(uint32_t code) {
  try {
    std::unique_ptr<KRVPrivilegedCommand> command =
        KRVPrivilegedCommand::privilegedCommandWithCode(code, {});
    if (!command) {
      errno = EINVAL;
      return nullptr;
    }
    krv::Result<krv::UniqueFd> wakeUp = krv::sys::eventFd(EFD_NONBLOCK);
    if (!wakeUp) {
      errno = static_cast<int>(wakeUp.error().code());
      return nullptr;
    }
    auto* result = new sa_command;
    result->command = std::move(command);
    result->wakeUp = std::move(*wakeUp);
    return result;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return nullptr;
  }
}

void sa_command_free(sa_command* command) { delete command; }

int sa_command_add_string(sa_command* command, const void* bytes, size_t length) {
  if (bytes == nullptr && length != 0) return failWith(EINVAL);
  return addArgumentCatching(command, [&] {
    return krv::nameValue(length == 0 ? std::string()
                                      : std::string(static_cast<const char*>(bytes), length));
  });
}

int sa_command_add_integer(sa_command* command, int64_t value) {
  return addArgumentCatching(command, [&] { return Value::integer(value); });
}

int sa_command_add_unsigned(sa_command* command, uint64_t value) {
  return addArgumentCatching(command, [&] { return Value::unsignedInteger(value); });
}

int sa_command_add_real(sa_command* command, double value) {
  return addArgumentCatching(command, [&] { return Value::real(value); });
}

int sa_command_add_boolean(sa_command* command, int value) {
  return addArgumentCatching(command, [&] { return Value::boolean(value != 0); });
}

int sa_command_add_data(sa_command* command, const void* bytes, size_t length) {
  if (bytes == nullptr && length != 0) return failWith(EINVAL);
  return addArgumentCatching(command, [&] {
    const auto* first = static_cast<const std::uint8_t*>(bytes);
    return Value(length == 0 ? krv::Data() : krv::Data(first, first + length));
  });
}

void sa_command_set_deauthorize(sa_command* command, int deauthorize) {
  if (command != nullptr) command->deauthorize = deauthorize != 0;
}

void sa_command_set_progress_callback(sa_command* command, sa_progress_callback callback,
                                      void* user_data) {
  if (command == nullptr) return;
  command->progress = callback;
  command->progressData = user_data;
}

void sa_command_set_output_callback(sa_command* command, sa_output_callback callback,
                                    void* user_data) {
  if (command == nullptr) return;
  command->output = callback;
  command->outputData = user_data;
}

void sa_command_set_payload_callback(sa_command* command, sa_payload_callback callback,
                                     void* user_data) {
  if (command == nullptr) return;
  command->payload = callback;
  command->payloadData = user_data;
}

sa_message* sa_command_run(sa_client* client, sa_command* command) {
  if (client == nullptr || command == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  try {
    {
      std::lock_guard<std::mutex> lock(command->mutex);
      if (command->running) {
        errno = EINVAL;
        return nullptr;
      }
      command->running = true;
      command->markerCreated = false;
      command->markerPath.clear();
      std::optional<std::size_t> index = markerArgumentIndex(command->command->commandCode());
      const krv::Array& arguments = command->command->arguments();
      if (index && *index < arguments.size()) {
        command->markerPath = bytesOf(&arguments[*index]).value_or(std::string());
      }
    }
    auto message = std::make_unique<sa_message>();
    std::optional<Error> result;
    int failure = 0;
    try {
      result.emplace(runCommand(*client, *command));
    } catch (const std::bad_alloc&) {
      failure = ENOMEM;
    } catch (...) {
      failure = EIO;  // nothing below throws anything else; never let it cross into C
    }
    std::lock_guard<std::mutex> lock(command->mutex);
    if (command->markerCreated) (void)krv::sys::unlink(command->markerPath);
    command->markerCreated = false;
    command->running = false;
    command->cancelled = false;
    drainWakeUp(*command);
    if (!result) {
      errno = failure;
      return nullptr;
    }
    message->owned = std::move(*result);
    message->error = &*message->owned;
    return message.release();
  } catch (const std::bad_alloc&) {
    std::lock_guard<std::mutex> lock(command->mutex);
    command->running = false;
    errno = ENOMEM;
    return nullptr;
  }
}

void sa_command_cancel(sa_command* command) {
  if (command == nullptr) return;
  std::lock_guard<std::mutex> lock(command->mutex);
  command->cancelled = true;
  const std::uint64_t one = 1;
  std::uint8_t bytes[sizeof one];
  std::memcpy(bytes, &one, sizeof one);
  (void)krv::sys::write(command->wakeUp.get(), bytes);
}

int sa_command_abort(sa_command* command) {
  if (command == nullptr) return failWith(EINVAL);
  try {
    std::lock_guard<std::mutex> lock(command->mutex);
    std::string path = command->markerPath;
    if (!command->running) {
      std::optional<std::size_t> index = markerArgumentIndex(command->command->commandCode());
      const krv::Array& arguments = command->command->arguments();
      if (index && *index < arguments.size()) {
        path = bytesOf(&arguments[*index]).value_or(std::string());
      }
    }
    if (path.empty()) return failWith(EINVAL);
    krv::Result<krv::UniqueFd> marker =
        krv::sys::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    if (!marker) {
      if (marker.error().code() == EEXIST) return 0;
      return failWith(static_cast<int>(marker.error().code()));
    }
    // Only a marker made for the run in progress is removed at its end.
    if (command->running) command->markerCreated = true;
    return 0;
  } catch (const std::bad_alloc&) {
    return failWith(ENOMEM);
  }
}

void sa_set_prompt_callback(sa_prompt_callback callback, void* user_data) {
  std::lock_guard<std::mutex> lock(g_promptMutex);
  try {
    if (callback == nullptr) {
      krv::auth::setPromptHandler(nullptr);
      return;
    }
    auto style = [](krv::auth::PromptStyle promptStyle) {
      switch (promptStyle) {
        case krv::auth::PromptStyle::Secret:
          return SA_PROMPT_SECRET;
        case krv::auth::PromptStyle::Visible:
          return SA_PROMPT_VISIBLE;
        case krv::auth::PromptStyle::Error:
          return SA_PROMPT_ERROR;
        case krv::auth::PromptStyle::Information:
          break;
      }
      return SA_PROMPT_INFORMATION;
    };
    auto ask = [callback, user_data, style](const krv::auth::Prompt& prompt) {
      krv::auth::Answer answer;
      char buffer[krv::auth::Secret::kCapacity + 1] = {};
      int choice =
          callback(style(prompt.style), prompt.message.c_str(), buffer, sizeof buffer, user_data);
      if (choice == SA_PROMPT_ANSWERED) {
        // An answer without its terminator inside the buffer is refused rather than cut.
        std::size_t length = ::strnlen(buffer, sizeof buffer);
        if (length < sizeof buffer && answer.response.append(std::string_view(buffer, length))) {
          answer.kind = krv::auth::AnswerKind::Response;
        }
      } else if (choice == SA_PROMPT_UNAVAILABLE) {
        answer.kind = krv::auth::AnswerKind::Unavailable;
      }
      krv::wipe(buffer, sizeof buffer);
      return answer;
    };
    auto show = [callback, user_data, style](const krv::auth::Prompt& prompt) {
      (void)callback(style(prompt.style), prompt.message.c_str(), nullptr, 0, user_data);
    };
    krv::auth::setPromptHandler(std::make_shared<krv::auth::CallbackPromptHandler>(ask, show));
  } catch (const std::bad_alloc&) {
    // The previous handler stays.
  }
}

void sa_message_free(sa_message* message) { delete message; }

const char* sa_message_domain(const sa_message* message) {
  return message != nullptr ? message->error->domain().c_str() : "";
}

int64_t sa_message_code(const sa_message* message) {
  return message != nullptr ? message->error->code() : 0;
}

int sa_message_is_success(const sa_message* message) {
  if (message == nullptr) return 0;
  return message->error->code() == 0 && !message->error->isPosix() ? 1 : 0;
}

size_t sa_message_count(const sa_message* message) {
  return message != nullptr ? message->error->userInfo().size() : 0;
}

const char* sa_message_key_at(const sa_message* message, size_t index, size_t* length) {
  if (length != nullptr) *length = 0;
  if (message == nullptr || index >= message->error->userInfo().size()) return nullptr;
  const std::string& key = message->error->userInfo().entries()[index].first;
  if (length != nullptr) *length = key.size();
  return key.c_str();
}

const sa_value* sa_message_value_at(const sa_message* message, size_t index) {
  if (message == nullptr || index >= message->error->userInfo().size()) return nullptr;
  return wrap(&message->error->userInfo().entries()[index].second);
}

const sa_value* sa_message_lookup(const sa_message* message, const char* key) {
  if (message == nullptr || key == nullptr) return nullptr;
  return wrap(message->error->userInfo().find(key));
}

char* sa_message_describe(const sa_message* message) {
  if (message == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  try {
    std::string text = message->error->description();
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy == nullptr) {
      errno = ENOMEM;
      return nullptr;
    }
    std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return nullptr;
  }
}

int sa_value_type(const sa_value* value) {
  const Value* held = unwrap(value);
  if (held == nullptr) return SA_VALUE_NONE;
  switch (held->type()) {
    case ValueType::String:
      return SA_VALUE_STRING;
    case ValueType::Data:
      return SA_VALUE_DATA;
    case ValueType::Number:
      switch (held->asNumber()->kind()) {
        case Number::Kind::Integer:
        case Number::Kind::LargeUnsigned:
          return SA_VALUE_INTEGER;
        case Number::Kind::Real:
          return SA_VALUE_REAL;
        case Number::Kind::Boolean:
          return SA_VALUE_BOOLEAN;
      }
      return SA_VALUE_INTEGER;
    case ValueType::Date:
      return SA_VALUE_DATE;
    case ValueType::Array:
      return SA_VALUE_ARRAY;
    case ValueType::Set:
      return SA_VALUE_SET;
    case ValueType::Dictionary:
      return SA_VALUE_DICTIONARY;
    case ValueType::Object:
      return SA_VALUE_OBJECT;
  }
  return SA_VALUE_NONE;
}

int64_t sa_value_integer(const sa_value* value) {
  const Value* held = unwrap(value);
  const Number* number = held != nullptr ? held->asNumber() : nullptr;
  return number != nullptr ? number->integerValue() : 0;
}

uint64_t sa_value_unsigned(const sa_value* value) {
  const Value* held = unwrap(value);
  const Number* number = held != nullptr ? held->asNumber() : nullptr;
  return number != nullptr ? number->unsignedIntegerValue() : 0;
}

double sa_value_real(const sa_value* value) {
  const Value* held = unwrap(value);
  if (held == nullptr) return 0.0;
  if (const krv::Date* date = held->asDate()) return date->secondsSince1970;
  const Number* number = held->asNumber();
  return number != nullptr ? number->doubleValue() : 0.0;
}

int sa_value_boolean(const sa_value* value) {
  const Value* held = unwrap(value);
  const Number* number = held != nullptr ? held->asNumber() : nullptr;
  return number != nullptr && number->boolValue() ? 1 : 0;
}

const void* sa_value_bytes(const sa_value* value, size_t* length) {
  if (length != nullptr) *length = 0;
  const Value* held = unwrap(value);
  if (held == nullptr) return nullptr;
  if (const std::string* text = held->asString()) {
    if (length != nullptr) *length = text->size();
    return text->c_str();
  }
  if (const krv::Data* data = held->asData()) {
    if (length != nullptr) *length = data->size();
    // An empty data value still answers a valid pointer, so that NULL means "not bytes".
    return data->empty() ? static_cast<const void*>("") : data->data();
  }
  return nullptr;
}

size_t sa_value_count(const sa_value* value) {
  const Value* held = unwrap(value);
  if (held == nullptr) return 0;
  if (const krv::Array* array = held->asArray()) return array->size();
  if (const krv::Set* set = held->asSet()) return set->elements.size();
  if (const krv::Dictionary* dictionary = held->asDictionary()) return dictionary->size();
  return 0;
}

const sa_value* sa_value_at(const sa_value* value, size_t index) {
  const Value* held = unwrap(value);
  if (held == nullptr) return nullptr;
  if (const krv::Array* array = held->asArray()) {
    return index < array->size() ? wrap(&(*array)[index]) : nullptr;
  }
  if (const krv::Set* set = held->asSet()) {
    return index < set->elements.size() ? wrap(&set->elements[index]) : nullptr;
  }
  if (const krv::Dictionary* dictionary = held->asDictionary()) {
    return index < dictionary->size() ? wrap(&dictionary->entries()[index].second) : nullptr;
  }
  return nullptr;
}

const char* sa_value_key_at(const sa_value* value, size_t index, size_t* length) {
  if (length != nullptr) *length = 0;
  const Value* held = unwrap(value);
  const krv::Dictionary* dictionary = held != nullptr ? held->asDictionary() : nullptr;
  if (dictionary == nullptr || index >= dictionary->size()) return nullptr;
  const std::string& key = dictionary->entries()[index].first;
  if (length != nullptr) *length = key.size();
  return key.c_str();
}

const sa_value* sa_value_lookup(const sa_value* value, const char* key) {
  const Value* held = unwrap(value);
  const krv::Dictionary* dictionary = held != nullptr ? held->asDictionary() : nullptr;
  if (dictionary == nullptr || key == nullptr) return nullptr;
  return wrap(dictionary->find(key));
}

const char* sa_value_class_name(const sa_value* value) {
  const Value* held = unwrap(value);
  const krv::ObjectRef* object = held != nullptr ? held->asObject() : nullptr;
  if (object == nullptr || !*object) return nullptr;
  // Class names are string literals of the classes (static storage, NUL-terminated).
  return (*object)->className().data();
}

}  // extern "C"

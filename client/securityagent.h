#ifndef SECURITYAGENT_H
#define SECURITYAGENT_H
/*
 * securityagent.h - the C interface of the security component's client library
 * (libsecurityagent.so.1).
 *
 * An application runs one command of the root daemon with it: it names the command by its code,
 * adds the arguments, and runs it. The library obtains the authorization the command's right needs
 * from the authorization service (asking the user through the prompt callback when a password is
 * needed), sends the request, follows the per-request pipe and hands every report to the
 * application's callbacks as it arrives: progress, payload chunks, live program output. The run
 * ends with the command's final message, which the caller owns.
 *
 *     sa_client *client = sa_client_new(NULL);
 *     sa_command *command = sa_command_new(3);          // the diagnostic "whoami"
 *     sa_command_add_integer(command, 3);               // three progress steps
 *     sa_command_set_progress_callback(command, show_progress, NULL);
 *     sa_message *result = sa_command_run(client, command);
 *     if (result && sa_message_is_success(result)) ...
 *     sa_message_free(result);
 *     sa_command_free(command);
 *     sa_client_free(client);
 *
 * Messages and values. Every message (a report or the final result) is an error object: a domain,
 * a code and a dictionary of user information. Its values are read through the small read-only
 * value interface below (type, integer, real, boolean, bytes, date, array element, dictionary
 * lookup); nothing of the wire format shows. A `const sa_value *` points into its message and is
 * valid as long as the message: for a report, until the callback returns; for the final result,
 * until sa_message_free().
 *
 * Strings and paths. A string argument is a sequence of bytes (a path need not be UTF-8). The
 * daemon sends a path as a string when its bytes are valid UTF-8 and as data otherwise;
 * sa_value_bytes() returns the bytes of either, so a caller never needs to tell them apart.
 *
 * Errors. Functions that return int return 0 on success and -1 with errno set on failure
 * (EINVAL for a null or misused argument, ENOMEM when memory ran out, EBUSY while the command
 * runs). Functions that return a pointer return NULL with errno set. Nothing else is reported
 * through errno; no function raises a signal or throws.
 *
 * Threads. A client and a command are used by one thread at a time, with two exceptions:
 * sa_command_cancel() and sa_command_abort() may be called from any thread (or from one of its
 * callbacks) while another thread is inside sa_command_run(). Different clients and commands may be
 * used by different threads at the same time. Callbacks are called on the thread that called
 * sa_command_run(). The prompt callback is process-wide (see sa_set_prompt_callback()).
 */

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define SA_API __attribute__((visibility("default")))
#else
#define SA_API
#endif

/* The domains of messages. */
#define SA_TRANSPORT_DOMAIN "com.tavorin.securityagent"   /* transport: 0 accepted, 1 report */
#define SA_COMMAND_DOMAIN "com.tavorin.privilegedCommand" /* command results: 0 success */
#define SA_POSIX_DOMAIN "NSPOSIXErrorDomain"              /* code is an errno value */

/* Common user information keys. */
#define SA_KEY_PROGRESS "CurrentProgress"             /* real from 0.0 to 1.0 */
#define SA_KEY_OUTPUT "OutputChannel"                 /* data: a program's standard output */
#define SA_KEY_ERROR_OUTPUT "ErrorChannel"            /* data: a program's standard error */
#define SA_KEY_FAILING_PATH "FailingPath"             /* string or data: the path that failed */
#define SA_KEY_UNDERLYING_ERROR "UnderlyingErrorCode" /* integer: errno or service status */

typedef struct sa_client sa_client;   /* a connection point to the daemon */
typedef struct sa_command sa_command; /* one command with its arguments and callbacks */
typedef struct sa_message sa_message; /* a report or a final result */
typedef struct sa_value sa_value;     /* a read-only value inside a message */

/* The library's version, "MAJOR.MINOR". Static storage. */
SA_API const char* sa_version(void);

/* ---- Client ------------------------------------------------------------------------------- */

/* A client of the daemon behind `socket_path` (NULL: the installed daemon's socket,
 * /var/run/com.tavorin.system.securityagent3.socket). NULL with errno ENOENT when nothing exists
 * at that path (the component is not installed or not enabled), ENOMEM when memory ran out.
 * Free it with sa_client_free(). */
SA_API sa_client* sa_client_new(const char* socket_path);
/* Frees a client; NULL is ignored. No command may be running on it. */
SA_API void sa_client_free(sa_client* client);

/* ---- Commands ----------------------------------------------------------------------------- */

/* A command with the given code (0 to 54) and no arguments yet. NULL with errno EINVAL for a
 * larger code, ENOMEM when memory ran out. Free it with sa_command_free(). */
SA_API sa_command* sa_command_new(uint32_t code);
/* Frees a command; NULL is ignored. It must not be running. */
SA_API void sa_command_free(sa_command* command);

/* Appending arguments, in order. Each command's arguments have fixed kinds (see the command
 * list): S takes a string, N takes a number (integer, real or boolean as the command says), D
 * takes data. A command whose arguments do not match is not sent: its run ends with transport
 * error 6. `bytes` may be NULL when `length` is 0. EBUSY while the command runs. */
SA_API int sa_command_add_string(sa_command* command, const void* bytes, size_t length);
SA_API int sa_command_add_integer(sa_command* command, int64_t value);
SA_API int sa_command_add_unsigned(sa_command* command, uint64_t value);
SA_API int sa_command_add_real(sa_command* command, double value);
SA_API int sa_command_add_boolean(sa_command* command, int value);
SA_API int sa_command_add_data(sa_command* command, const void* bytes, size_t length);

/* Whether the rights obtained for this command are destroyed once it ends (default: kept, so that
 * a credential shared for a few minutes serves the next command too). */
SA_API void sa_command_set_deauthorize(sa_command* command, int deauthorize);

/* Report callbacks, each optional (NULL removes it), each with its own user data. Called on the
 * thread inside sa_command_run(), in the order in which the reports arrive:
 * - progress: the fraction done, 0.0 to 1.0, from a report carrying SA_KEY_PROGRESS;
 * - output: live output of a program the command runs: channel 1 standard output, 2 standard
 *   error; the bytes are valid during the call only;
 * - payload: every report that carries anything besides progress and output (result chunks such
 *   as "FileSystemObjects"); the message is valid during the call only.
 * A report may call several of them (progress first, then output, then payload). A callback may
 * call sa_command_cancel() or sa_command_abort() on its command. */
typedef void (*sa_progress_callback)(double fraction, void* user_data);
typedef void (*sa_output_callback)(int channel, const void* bytes, size_t length, void* user_data);
typedef void (*sa_payload_callback)(const sa_message* report, void* user_data);
SA_API void sa_command_set_progress_callback(sa_command* command, sa_progress_callback callback,
                                             void* user_data);
SA_API void sa_command_set_output_callback(sa_command* command, sa_output_callback callback,
                                           void* user_data);
SA_API void sa_command_set_payload_callback(sa_command* command, sa_payload_callback callback,
                                            void* user_data);

/* Runs the command to its end and returns its final message, owned by the caller (free it with
 * sa_message_free()). Blocks: while the user is asked for a password, while the command runs.
 * Every failure is a message too: transport errors (SA_TRANSPORT_DOMAIN: 5 the daemon ended the
 * command without a final message, 6 the arguments do not match the command), authorization
 * failures (SA_COMMAND_DOMAIN code 2 with SA_KEY_UNDERLYING_ERROR the service's status, -60005
 * denied, -60006 cancelled, -60007 a password was needed but could not be asked), POSIX errors
 * (ECANCELED after sa_command_cancel(), ECONNREFUSED when the daemon does not serve).
 * NULL only with errno EINVAL (a null argument, the command already running) or ENOMEM.
 * A command may be run again once its run has ended. */
SA_API sa_message* sa_command_run(sa_client* client, sa_command* command);

/* Stops waiting for the command: the run in progress (or the next one, if none is) ends at once
 * with the POSIX error ECANCELED; the library closes and removes the response pipe, so the
 * daemon's next report fails and most commands stop there. It does not interrupt a password
 * prompt (the prompt callback cancels that itself). Any thread; safe to call repeatedly. */
SA_API void sa_command_cancel(sa_command* command);

/* Asks a command that has an abort marker to stop on its own, keeping its result: the count of
 * objects (code 51, the marker is its second argument) and the folder comparison (code 52, its
 * third argument). The library creates an empty file at the marker path with the caller's rights
 * (an object already there counts as well) and keeps reading: the command ends with its regular
 * final message. A marker the library created is removed when the run ends. Any thread. -1 with
 * EINVAL for a command without a marker, or the errno of creating the file. */
SA_API int sa_command_abort(sa_command* command);

/* ---- Password prompts --------------------------------------------------------------------- */

enum sa_prompt_style {
  SA_PROMPT_SECRET = 0,     /* a password: do not echo */
  SA_PROMPT_VISIBLE = 1,    /* an answer that may be echoed */
  SA_PROMPT_ERROR = 2,      /* show the message only ("Sorry, try again.") */
  SA_PROMPT_INFORMATION = 3 /* show the message only */
};
enum sa_prompt_result {
  SA_PROMPT_ANSWERED = 0,   /* `answer` holds the NUL-terminated answer */
  SA_PROMPT_CANCELLED = 1,  /* the user cancelled: the run ends with status -60006 */
  SA_PROMPT_UNAVAILABLE = 2 /* nobody can be asked: the run ends with status -60007 */
};
/* Asks the user. `message` is NUL-terminated UTF-8 of at most 512 bytes, control characters
 * replaced. For SA_PROMPT_SECRET and SA_PROMPT_VISIBLE write the answer, NUL-terminated, into
 * `answer` (capacity `answer_capacity`, 513 bytes: at most 512 bytes of answer) and return one of
 * sa_prompt_result; the library wipes the buffer afterwards, and an answer without its terminator
 * inside the buffer counts as cancelled. For the other styles `answer` is NULL and
 * `answer_capacity` 0: show the message; the result is ignored. Called on the thread that runs the
 * command; it must not run a command itself. */
typedef int (*sa_prompt_callback)(int style, const char* message, char* answer,
                                  size_t answer_capacity, void* user_data);
/* Installs the process's prompt callback, used by every run in the process that needs a password.
 * NULL restores the default: asking on the controlling terminal (/dev/tty) with echo off, or
 * nobody (status -60007) without a terminal. Thread-safe; do not change it while a run is asking.
 */
SA_API void sa_set_prompt_callback(sa_prompt_callback callback, void* user_data);

/* ---- Messages ----------------------------------------------------------------------------- */

SA_API void sa_message_free(sa_message* message);
/* The domain (NUL-terminated, valid as long as the message) and the code. */
SA_API const char* sa_message_domain(const sa_message* message);
SA_API int64_t sa_message_code(const sa_message* message);
/* 1 when the command succeeded: code 0 outside the POSIX domain. */
SA_API int sa_message_is_success(const sa_message* message);
/* The user information: its number of entries, each entry's key (bytes, NUL-terminated, length
 * in *length when not NULL) and value by position, and the value for a key (NULL when absent). */
SA_API size_t sa_message_count(const sa_message* message);
SA_API const char* sa_message_key_at(const sa_message* message, size_t index, size_t* length);
SA_API const sa_value* sa_message_value_at(const sa_message* message, size_t index);
SA_API const sa_value* sa_message_lookup(const sa_message* message, const char* key);
/* A one-line description for logs: "Error Domain=... Code=... UserInfo={...}". Caller frees it
 * with free(). NULL with errno ENOMEM. */
SA_API char* sa_message_describe(const sa_message* message);

/* ---- Values ------------------------------------------------------------------------------- */

enum sa_value_type {
  SA_VALUE_NONE = 0, /* no value (a NULL pointer) */
  SA_VALUE_STRING,   /* UTF-8 text */
  SA_VALUE_DATA,     /* bytes */
  SA_VALUE_INTEGER,  /* signed 64-bit; see sa_value_unsigned() for values above INT64_MAX */
  SA_VALUE_REAL,     /* double */
  SA_VALUE_BOOLEAN,
  SA_VALUE_DATE,       /* seconds since 1970-01-01 00:00:00 UTC */
  SA_VALUE_ARRAY,      /* ordered elements */
  SA_VALUE_SET,        /* distinct elements */
  SA_VALUE_DICTIONARY, /* keys (bytes) with values, in the order received */
  SA_VALUE_OBJECT      /* an archived object: only its class name is readable */
};
/* Every accessor accepts NULL and values of other types, answering 0, 0.0, NULL or SA_VALUE_NONE.
 */
SA_API int sa_value_type(const sa_value* value);
/* A number as a signed integer (reals truncate toward zero, saturating; booleans are 0 or 1). */
SA_API int64_t sa_value_integer(const sa_value* value);
/* A number as an unsigned integer (negative integers wrap modulo 2^64). */
SA_API uint64_t sa_value_unsigned(const sa_value* value);
/* A number as a double; a date as its seconds. */
SA_API double sa_value_real(const sa_value* value);
/* A number as 0 or 1 (non-zero is 1). */
SA_API int sa_value_boolean(const sa_value* value);
/* The bytes of a string or data value; the string's bytes are followed by a NUL not counted in
 * *length. NULL for other types (then *length is 0). */
SA_API const void* sa_value_bytes(const sa_value* value, size_t* length);
/* The number of elements of an array or set, of entries of a dictionary; 0 otherwise. */
SA_API size_t sa_value_count(const sa_value* value);
/* The element of an array or set, or the value of a dictionary entry, at a position. */
SA_API const sa_value* sa_value_at(const sa_value* value, size_t index);
/* The key of a dictionary entry at a position (NUL-terminated; its length in *length). */
SA_API const char* sa_value_key_at(const sa_value* value, size_t index, size_t* length);
/* The value of a dictionary for a NUL-terminated key; NULL when absent. */
SA_API const sa_value* sa_value_lookup(const sa_value* value, const char* key);
/* The class name of an object (NUL-terminated). */
SA_API const char* sa_value_class_name(const sa_value* value);

#ifdef __cplusplus
}
#endif

#endif /* SECURITYAGENT_H */

/*
 * securityagent-example: runs one command of the security component's daemon through the client
 * library and prints its progress, live output, payload and final result.
 *
 *     securityagent-example [--socket PATH] CODE [ARGUMENT...]
 *
 * Each argument is written with its kind: s:TEXT (a string or path), i:NUMBER (an integer),
 * r:NUMBER (a real), b:0 or b:1 (a boolean), x:HEX (data). For example, the diagnostic "whoami"
 * with three progress steps:
 *
 *     securityagent-example 3 i:3
 *
 * Exit status: 0 when the command succeeded, 1 when it failed, 2 for a usage error, 3 when the
 * component is not installed. Passwords are asked on the terminal with echo off.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <securityagent.h>

static void on_progress(double fraction, void *user_data) {
  (void)user_data;
  printf("progress %3.0f%%\n", fraction * 100.0);
  fflush(stdout);
}

static void on_output(int channel, const void *bytes, size_t length, void *user_data) {
  (void)user_data;
  fwrite(bytes, 1, length, channel == 1 ? stdout : stderr);
  fflush(channel == 1 ? stdout : stderr);
}

/* Prints a value; strings and data as escaped bytes. */
static void print_value(const sa_value *value) {
  size_t length = 0, index;
  const unsigned char *bytes;
  switch (sa_value_type(value)) {
    case SA_VALUE_STRING:
    case SA_VALUE_DATA:
      bytes = sa_value_bytes(value, &length);
      putchar('"');
      for (index = 0; index < length; ++index) {
        if (bytes[index] >= 0x20 && bytes[index] < 0x7f && bytes[index] != '\\' && bytes[index] != '"')
          putchar(bytes[index]);
        else
          printf("\\x%02x", bytes[index]);
      }
      putchar('"');
      break;
    case SA_VALUE_INTEGER: printf("%lld", (long long)sa_value_integer(value)); break;
    case SA_VALUE_REAL: printf("%g", sa_value_real(value)); break;
    case SA_VALUE_BOOLEAN: printf(sa_value_boolean(value) ? "true" : "false"); break;
    case SA_VALUE_DATE: printf("date(%.0f)", sa_value_real(value)); break;
    case SA_VALUE_ARRAY:
    case SA_VALUE_SET:
      printf("[%zu elements]", sa_value_count(value));
      break;
    case SA_VALUE_DICTIONARY:
      printf("{");
      for (index = 0; index < sa_value_count(value); ++index) {
        printf("%s%s: ", index ? ", " : "", sa_value_key_at(value, index, NULL));
        print_value(sa_value_at(value, index));
      }
      printf("}");
      break;
    case SA_VALUE_OBJECT: printf("<%s>", sa_value_class_name(value)); break;
    default: printf("?"); break;
  }
}

static void print_message(const char *label, const sa_message *message) {
  size_t index;
  printf("%s %s %lld", label, sa_message_domain(message), (long long)sa_message_code(message));
  for (index = 0; index < sa_message_count(message); ++index) {
    printf(" %s=", sa_message_key_at(message, index, NULL));
    print_value(sa_message_value_at(message, index));
  }
  putchar('\n');
  fflush(stdout);
}

static void on_payload(const sa_message *report, void *user_data) {
  (void)user_data;
  print_message("payload", report);
}

/* Asks on the terminal; without one nobody can be asked. */
static int on_prompt(int style, const char *message, char *answer, size_t capacity, void *user_data) {
  struct termios saved, quiet;
  size_t length;
  int hidden;
  FILE *terminal;
  (void)user_data;
  if (answer == NULL) { /* an error or information message */
    fprintf(stderr, "%s\n", message);
    return SA_PROMPT_ANSWERED;
  }
  terminal = fopen("/dev/tty", "r+");
  if (terminal == NULL) return SA_PROMPT_UNAVAILABLE;
  fprintf(terminal, "%s", message);
  fflush(terminal);
  hidden = style == SA_PROMPT_SECRET && tcgetattr(fileno(terminal), &saved) == 0;
  if (hidden) {
    quiet = saved;
    quiet.c_lflag &= (tcflag_t)~ECHO;
    tcsetattr(fileno(terminal), TCSAFLUSH, &quiet);
  }
  if (fgets(answer, (int)capacity, terminal) == NULL) answer[0] = '\0';
  if (hidden) {
    tcsetattr(fileno(terminal), TCSAFLUSH, &saved);
    fputc('\n', terminal);
  }
  fclose(terminal);
  length = strlen(answer);
  if (length > 0 && answer[length - 1] == '\n') answer[length - 1] = '\0';
  return SA_PROMPT_ANSWERED;
}

static int hex_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

static int add_argument(sa_command *command, const char *word) {
  const char *text = word + 2;
  char *end = NULL;
  if (strlen(word) < 2 || word[1] != ':') return -1;
  errno = 0;
  switch (word[0]) {
    case 's': return sa_command_add_string(command, text, strlen(text));
    case 'i': {
      long long value = strtoll(text, &end, 10);
      if (*text == '\0' || *end != '\0' || errno != 0) return -1;
      return sa_command_add_integer(command, value);
    }
    case 'r': {
      double value = strtod(text, &end);
      if (*text == '\0' || *end != '\0') return -1;
      return sa_command_add_real(command, value);
    }
    case 'b': return sa_command_add_boolean(command, strcmp(text, "1") == 0 || strcmp(text, "true") == 0);
    case 'x': {
      size_t length = strlen(text), index;
      unsigned char *bytes;
      int status;
      if (length % 2 != 0) return -1;
      bytes = malloc(length / 2 + 1);
      if (bytes == NULL) return -1;
      for (index = 0; index < length / 2; ++index) {
        int high = hex_value(text[2 * index]), low = hex_value(text[2 * index + 1]);
        if (high < 0 || low < 0) {
          free(bytes);
          return -1;
        }
        bytes[index] = (unsigned char)(high * 16 + low);
      }
      status = sa_command_add_data(command, bytes, length / 2);
      free(bytes);
      return status;
    }
    default: return -1;
  }
}

int main(int argc, char **argv) {
  const char *socket_path = NULL;
  int first = 1, index, status;
  char *end = NULL;
  unsigned long code;
  sa_client *client;
  sa_command *command;
  sa_message *result;

  if (argc > 2 && strcmp(argv[1], "--socket") == 0) {
    socket_path = argv[2];
    first = 3;
  }
  if (first >= argc) {
    fprintf(stderr, "usage: %s [--socket PATH] CODE [s:TEXT|i:N|r:N|b:0|b:1|x:HEX]...\n", argv[0]);
    return 2;
  }
  code = strtoul(argv[first], &end, 10);
  if (*argv[first] == '\0' || *end != '\0') {
    fprintf(stderr, "%s: not a command code: %s\n", argv[0], argv[first]);
    return 2;
  }
  printf("library %s\n", sa_version());

  client = sa_client_new(socket_path);
  if (client == NULL) {
    fprintf(stderr, "%s: the security component is not installed (%s)\n", argv[0], strerror(errno));
    return 3;
  }
  command = sa_command_new((uint32_t)code);
  if (command == NULL) {
    fprintf(stderr, "%s: no command %lu (%s)\n", argv[0], code, strerror(errno));
    sa_client_free(client);
    return 2;
  }
  for (index = first + 1; index < argc; ++index) {
    if (add_argument(command, argv[index]) != 0) {
      fprintf(stderr, "%s: bad argument: %s\n", argv[0], argv[index]);
      sa_command_free(command);
      sa_client_free(client);
      return 2;
    }
  }
  sa_set_prompt_callback(on_prompt, NULL);
  sa_command_set_progress_callback(command, on_progress, NULL);
  sa_command_set_output_callback(command, on_output, NULL);
  sa_command_set_payload_callback(command, on_payload, NULL);

  result = sa_command_run(client, command);
  if (result == NULL) {
    fprintf(stderr, "%s: %s\n", argv[0], strerror(errno));
    status = 1;
  } else {
    print_message("result", result);
    status = sa_message_is_success(result) ? 0 : 1;
    sa_message_free(result);
  }
  sa_command_free(command);
  sa_client_free(client);
  return status;
}

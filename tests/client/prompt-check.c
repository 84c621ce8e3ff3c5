/* A program for the prompt tests of the client library, written against the C interface alone
 * (and so compiled as C): it runs the diagnostic with a prompt callback that either cancels the
 * first question or answers every question with a wrong password, and prints what it was asked
 * and how the run ended:
 *
 *     prompt-check cancel|wrong SOCKET
 *     -> "secret=N shown=N result DOMAIN CODE UNDERLYING"
 */
#include <stdio.h>
#include <string.h>

#include "securityagent.h"

struct tally {
  int answer_wrongly;
  int secret;
  int shown;
};

static int on_prompt(int style, const char *message, char *answer, size_t capacity, void *data) {
  struct tally *tally = data;
  (void)message;
  if (answer == NULL) { /* an error or information message: nothing to answer */
    if (capacity == 0 && (style == SA_PROMPT_ERROR || style == SA_PROMPT_INFORMATION)) ++tally->shown;
    return SA_PROMPT_ANSWERED;
  }
  if (style == SA_PROMPT_SECRET) ++tally->secret;
  if (!tally->answer_wrongly || capacity < 6) return SA_PROMPT_CANCELLED;
  memcpy(answer, "wrong", 6);
  return SA_PROMPT_ANSWERED;
}

int main(int argc, char **argv) {
  struct tally tally = {0, 0, 0};
  sa_client *client;
  sa_command *command;
  sa_message *result;
  if (argc != 3) return 2;
  tally.answer_wrongly = strcmp(argv[1], "wrong") == 0;
  client = sa_client_new(argv[2]);
  command = sa_command_new(3);
  if (client == NULL || command == NULL || sa_command_add_integer(command, 1) != 0) return 3;
  sa_set_prompt_callback(on_prompt, &tally);
  result = sa_command_run(client, command);
  if (result == NULL) return 4;
  printf("secret=%d shown=%d result %s %lld %lld\n", tally.secret, tally.shown,
         sa_message_domain(result), (long long)sa_message_code(result),
         (long long)sa_value_integer(sa_message_lookup(result, SA_KEY_UNDERLYING_ERROR)));
  sa_message_free(result);
  sa_command_free(command);
  sa_client_free(client);
  return 0;
}

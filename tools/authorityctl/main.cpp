// authorityctl: reads, writes and removes right definitions of the authorization service, and
// tries a right the way a client application obtains it.
//
//   authorityctl read RIGHT               print the definition
//   authorityctl write RIGHT RULE [TEXT]  define the right with a built-in rule (and a comment)
//   authorityctl remove RIGHT             remove the definition
//   authorityctl rules                    list the built-in rules
//   authorityctl authorize RIGHT          obtain the right, asking for a password on the terminal
//
// read, write and remove are for root. A change takes effect with the next request: the service
// reads the definition each time a right is evaluated.
//
// Exit status: 0 success, 1 the operation failed, 2 usage.

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "authorization/Authorization.h"
#include "authorization/RightsStore.h"
#include "authorization/Rules.h"
#include "foundation/Value.h"

namespace {

using krv::auth::describeStatus;

constexpr const char* kUsage =
    "usage: authorityctl read RIGHT\n"
    "       authorityctl write RIGHT RULE [COMMENT]\n"
    "       authorityctl remove RIGHT\n"
    "       authorityctl rules\n"
    "       authorityctl authorize RIGHT\n";

int usage() {
  std::fputs(kUsage, stderr);
  return 2;
}

int failure(const std::string& message) {
  std::fprintf(stderr, "authorityctl: %s\n", message.c_str());
  return 1;
}

int failure(const std::string& what, std::int32_t status) {
  return failure(what + ": " + std::string(describeStatus(status)) + " (" + std::to_string(status) +
                 ")");
}

bool checkRightName(const std::string& right) {
  if (krv::auth::isValidRightName(right)) return true;
  std::fprintf(stderr,
               "authorityctl: '%s' is not a right name (letters, digits, '.', '_' and '-'; not "
               "starting with '.')\n",
               right.c_str());
  return false;
}

bool checkRoot() {
  if (::geteuid() == 0) return true;
  std::fputs("authorityctl: right definitions can only be changed or read by root\n", stderr);
  return false;
}

int listRules() {
  for (const krv::auth::Rule& rule : krv::auth::builtInRules()) {
    std::printf("%.*s\n", static_cast<int>(rule.name.size()), rule.name.data());
  }
  return 0;
}

int readRight(const std::string& right) {
  krv::Value definition("");
  std::string problem;
  std::int32_t status = krv::auth::rightGet(right, &definition, &problem);
  if (status == krv::auth::kStatusDenied) return failure("right '" + right + "' is not defined");
  if (status != krv::auth::kStatusSuccess) return failure("cannot read '" + right + "'", status);
  if (!problem.empty()) {
    return failure("the definition of '" + right + "' cannot be used (" + problem +
                   "); the right is denied until it is rewritten or removed");
  }
  krv::Result<krv::auth::RightDefinition> parsed = krv::auth::definitionFromValue(definition);
  if (!parsed) return failure("the service sent a malformed definition");
  std::printf("rule: %s\n", parsed->rule.c_str());
  if (!parsed->comment.empty()) std::printf("comment: %s\n", parsed->comment.c_str());
  return 0;
}

int writeRight(const std::string& right, const std::string& rule, const std::string& comment) {
  if (krv::auth::findRule(rule) == nullptr) {
    std::fprintf(stderr, "authorityctl: '%s' is not a rule; the rules are:\n", rule.c_str());
    listRules();
    return 1;
  }
  krv::auth::RightDefinition definition{rule, comment};
  std::int32_t status = krv::auth::rightSet(right, krv::auth::definitionValue(definition));
  if (status != krv::auth::kStatusSuccess) return failure("cannot write '" + right + "'", status);
  return 0;
}

int removeRight(const std::string& right) {
  std::int32_t status = krv::auth::rightRemove(right);
  if (status == krv::auth::kStatusDenied) return failure("right '" + right + "' is not defined");
  if (status != krv::auth::kStatusSuccess) return failure("cannot remove '" + right + "'", status);
  return 0;
}

int authorize(const std::string& right) {
  std::unique_ptr<krv::auth::Authorization> authorization;
  std::int32_t status = krv::auth::Authorization::create(authorization);
  if (status != krv::auth::kStatusSuccess) return failure("cannot create an authorization", status);
  status = authorization->copyRights(right, krv::auth::kFlagInteractionAllowed |
                                                krv::auth::kFlagExtendRights |
                                                krv::auth::kFlagPreAuthorize);
  authorization->free(krv::auth::kFlagDestroyRights);
  if (status != krv::auth::kStatusSuccess)
    return failure("right '" + right + "' not obtained", status);
  std::printf("right '%s' obtained\n", right.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  const std::string command = argv[1];
  if (command == "rules" && argc == 2) return listRules();
  if (argc < 3) return usage();
  const std::string right = argv[2];
  if (!checkRightName(right)) return 2;

  if (command == "authorize" && argc == 3) return authorize(right);
  if (command == "read" && argc == 3) return checkRoot() ? readRight(right) : 1;
  if (command == "remove" && argc == 3) return checkRoot() ? removeRight(right) : 1;
  if (command == "write" && (argc == 4 || argc == 5)) {
    return checkRoot() ? writeRight(right, argv[3], argc == 5 ? argv[4] : "") : 1;
  }
  return usage();
}

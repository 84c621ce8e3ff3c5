// The password back-off against users who try to get around it, end to end: the real service and
// real PAM. The delays are the service's own (2 s after the third failure, doubling from there);
// the tests read what the service decided from its log instead of timing it.

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/authority/AuthorityFixture.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;

// Every delay the service announced for attempts as `account` asked by `uid`, in milliseconds.
std::vector<long long> loggedDelays(const std::string& log, const std::string& account, uid_t uid) {
  const std::string marker =
      "Delaying authentication as '" + account + "' for uid " + std::to_string(uid) + " by ";
  std::vector<long long> delays;
  for (std::size_t at = log.find(marker); at != std::string::npos; at = log.find(marker, at + 1)) {
    delays.push_back(std::atoll(log.c_str() + at + marker.size()));
  }
  return delays;
}

class PasswordBackOffTest : public AuthorityFixture {
 protected:
  // Alice mistypes her password three times: the next attempt for her account waits.
  void failThreeTimesAsAlice() {
    auto lines = asUser(kAlice, [](LineChannel& parent) {
      obtainRight(parent, kDefaultRight, {"guess-1", "guess-2", "guess-3"});
    });
    ASSERT_FALSE(lines.empty());
    ASSERT_EQ(lines[0], line(auth::kStatusDenied));
  }
};

TEST_F(PasswordBackOffTest, FailuresForMadeUpAccountsNeitherEraseNorEscapeTheBackOff) {
  failThreeTimesAsAlice();
  {
    // Bob answers empty passwords for more made-up accounts than the service remembers.
    Result<ChildProcess> flood = ChildProcess::start({kBob, kBob}, [](LineChannel& parent) {
      std::unique_ptr<auth::Authorization> authorization;
      if (auth::Authorization::create(authorization) != auth::kStatusSuccess) return 1;
      for (int i = 0; i < 1100; ++i) {
        RawConnection connection;
        const std::string ghost = "ghost-" + std::to_string(i);
        if (!connection.open(copyRightsRequest(*authorization, kDefaultRight, ghost))) return 2;
        // One empty password (a failure PAM never sees), then a cancel at the next prompt.
        int answered = 0;
        while (std::optional<auth::ServiceMessage> message = connection.next()) {
          if (!message->prompt) break;
          if (!auth::expectsAnswer(message->prompt->style)) continue;
          (void)connection.answer(answered++ == 0 ? auth::AnswerKind::Response
                                                  : auth::AnswerKind::Cancel);
        }
      }
      (void)parent.send("done");
      return 0;
    });
    ASSERT_TRUE(flood.ok());
    // The flood runs to its end unless the service holds it back first.
    bool heldBack = false;
    for (;;) {
      Result<std::string> done = flood->channel().receive(100ms);
      if (done || done.error().code() != ETIMEDOUT) break;
      if (serviceLog().find("Delaying authentication as 'ghost-") != std::string::npos) {
        heldBack = true;
        break;
      }
    }
    EXPECT_TRUE(heldBack) << "failures for unknown accounts count against the uid making them";
  }  // the flood, held back or done, ends here

  // Every failure of alice still counts: her attempts wait (at the latest, the one after a fourth
  // wrong password). Seeing that is enough; she need not wait it out.
  Result<ChildProcess> alice = ChildProcess::start({kAlice, kAlice}, [](LineChannel& parent) {
    obtainRight(parent, kDefaultRight, {"guess-4", "alice-password"});
    return 0;
  });
  ASSERT_TRUE(alice.ok());
  EXPECT_TRUE(waitForLog("Delaying authentication as 'alice' for uid 1001 by", 10s))
      << "alice's failures were forgotten";
}

TEST_F(PasswordBackOffTest, AttemptsAbandonedWhileWaitingGiveTheirTurnsBack) {
  failThreeTimesAsAlice();
  // Bob asks again and again to authenticate as alice and hangs up while he is made to wait.
  auto abandoned = asUser(kBob, [](LineChannel& parent) {
    std::unique_ptr<auth::Authorization> authorization;
    (void)auth::Authorization::create(authorization);
    const auth::Request request = copyRightsRequest(*authorization, kDefaultRight, "alice");
    int closed = 0;
    for (int i = 0; i < 300; ++i) {
      RawConnection connection;
      closed += connection.open(request) && connection.hangUpAndWaitForClose() ? 1 : 0;
    }
    (void)parent.send(std::to_string(closed));
  });
  EXPECT_EQ(abandoned, std::vector<std::string>{"300"});

  // Alice waits no longer than her own three failures cost (2 s), and gets in.
  Result<ChildProcess> alice = ChildProcess::start({kAlice, kAlice}, [](LineChannel& parent) {
    obtainRight(parent, kDefaultRight, {"alice-password"});
    return 0;
  });
  ASSERT_TRUE(alice.ok());
  std::string status;
  for (;;) {
    Result<std::string> received = alice->channel().receive(100ms);
    if (received) status = *received;
    if (received || received.error().code() != ETIMEDOUT) break;
    const std::vector<long long> delays = loggedDelays(serviceLog(), "alice", kAlice);
    if (!delays.empty() && delays.back() > 2000) break;  // not worth waiting for
  }
  for (long long delay : loggedDelays(serviceLog(), "alice", kAlice)) EXPECT_LE(delay, 2000);
  EXPECT_EQ(status, line(auth::kStatusSuccess));
}

}  // namespace
}  // namespace krv::test

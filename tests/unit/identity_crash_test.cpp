// A process stopped for good (power cut, SIGKILL) while it stores an
// identity must leave one that the next start can use. Each exchange runs in
// a child process killed at its n-th write or rename, for n = 1, 2, ...
// until it completes. A renewal killed before its connection has proven the
// new pair must come back with the old one, which the broker is known to
// take; DAXO_CRASH_RUNS=N adds N kills per exchange at random
// moments (with storage slowed by tests/slow_writes.c, say).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "client_fixture.h"
#include "open_ssl_connector.h"
#include "test_certificates.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

int stepsLeft = 0;
int killReport = -1;  // the child names the step it was killed at here

class IdentityCrashTest : public FakeClientTest {
 protected:
  enum Exchange { kProvisioning, kRenewal, kAuthority };

  // In the child: a client of its own (the fixture's belongs to threads
  // that do not exist here) that runs the exchange to its end.
  int RunExchange(Exchange exchange) {
    DAXO_Error err;
    DAXO_Client* c = client =
        NewClientInternal(conf.c_str(), this, &err, FakeMqtt::Create, FakeMqtt::Destroy);
    if (c == nullptr) return 2;
    if (exchange == kProvisioning) {
      if (DAXO_ProvisionClient(c) != DAXO_Error_Success) return 3;
      FakeMqtt& fake = *FakeMqtt::Last();
      fake.FireConnect(0);
      std::string request = fake.publishes.back().payload;
      fake.Deliver("/certBack/" + testcert::Sha256Hex(request),
                   testcert::IssuedFor(request, "device"));
      return DAXO_GetClientId(c) != nullptr ? 0 : 4;
    }
    free(c->clientId);
    c->clientId = strdup("client-1");
    if (DAXO_Connect(c) != DAXO_Error_Success) return 5;
    FakeMqtt& fake = *FakeMqtt::Last();
    fake.FireConnect(0);
    fake.FireSubscribe(fake.subscribes.back().mid);
    if (exchange == kRenewal) {
      fake.Deliver("/v1.0/client-1/checkExpireDate/inbox", testcert::ExpiringAnswer());
      Settle();
      fake.Deliver("/v1.0/client-1/renewCertificate/inbox",
                   testcert::IssuedFor(fake.publishes.back().payload, "client-1"));
      Settle();
      // The new pair is installed and its connection not yet up.
      if (IdentityStepHook != nullptr) IdentityStepHook("trial");
      FakeMqtt& trial = *FakeMqtt::Last();
      trial.FireConnect(0);
      trial.FireSubscribe(trial.subscribes.back().mid);
      Settle();
      if (IdentityStepHook != nullptr) IdentityStepHook("accepted");
    } else {
      fake.Deliver("/v1.0/client-1/checkExpireDate/inbox",
                   testcert::ExpiringAnswer(testcert::Authority("new")));
    }
    Settle();
    return HasFatalFailure() ? 6 : 0;
  }

  void Prepare(Exchange exchange) {
    fs::remove_all(dir / "certs");
    fs::create_directories(dir / "certs");
    std::ofstream(client->caFile) << authority;
    if (exchange == kProvisioning) return;
    std::ofstream(dir / "certs/priv_key.key") << identity.key;
    std::ofstream(dir / "certs/cert.crt") << identity.cert;
  }

  // Runs the exchange in a child killed at its step-th write or rename
  // (0: never) or after `after`; false once it ran to its end. *killedAt
  // names the step.
  bool Interrupt(Exchange exchange, int step, std::chrono::microseconds after = {},
                 std::string* killedAt = nullptr) {
    Prepare(exchange);
    int report[2];
    if (pipe(report) != 0) return false;
    pid_t pid = fork();
    if (pid == 0) {
      close(report[0]);
      killReport = report[1];
      stepsLeft = step;
      IdentityStepHook = [](const char* name) {
        if (--stepsLeft != 0) return;
        (void)!write(killReport, name, strlen(name));
        raise(SIGKILL);
      };
      _exit(RunExchange(exchange));
    }
    close(report[1]);
    char name[32] = {};
    (void)!read(report[0], name, sizeof name - 1);
    close(report[0]);
    if (killedAt != nullptr) *killedAt = name;
    if (after.count() > 0) {
      std::this_thread::sleep_for(after);  // the fault's timing, not a wait for an event
      kill(pid, SIGKILL);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status)) {
      EXPECT_EQ(WEXITSTATUS(status), 0) << "the exchange itself failed";
    }
    return WIFSIGNALED(status);
  }

  // What a fresh start finds: "" when it can use it, else what is wrong.
  std::string Judge(Exchange exchange) {
    DAXO_Error err;
    DAXO_Client* fresh =
        NewClientInternal(conf.c_str(), nullptr, &err, FakeMqtt::Create, FakeMqtt::Destroy);
    DAXO_Error provisioned = DAXO_ProvisionClient(fresh);
    std::string id = DAXO_GetClientId(fresh) != nullptr ? DAXO_GetClientId(fresh) : "";
    DAXO_DeleteClient(fresh);
    std::string key = testcert::ReadFile(dir / "certs/priv_key.key");
    std::string cert = testcert::ReadFile(dir / "certs/cert.crt");
    std::string ca = testcert::ReadFile(client->caFile);
    for (const char* kept : {"certs/priv_key.key.old", "certs/cert.crt.old"})
      if (fs::exists(dir / kept)) return std::string("left ") + kept;
    if (const char* why = CheckAuthorityCertificate(ca.data(), ca.size()))
      return std::string("authority: ") + why;
    if (exchange == kProvisioning && provisioned == DAXO_Error_Success)
      return fs::exists(dir / "certs/cert.crt") ? "a new exchange beside a certificate" : "";
    if (provisioned != DAXO_Error_AlreadyProvisioned)
      return "provisioning gave " + std::string(DAXO_ErrorName(provisioned));
    if (const char* why = CheckCertificateForKey(cert.data(), cert.size(), key.c_str(), nullptr))
      return why;
    return id == (exchange == kProvisioning ? "device" : "client-1") ? "" : "identifier " + id;
  }

  testcert::Identity identity = testcert::MakeIdentity("client-1");
  std::string authority = testcert::Authority("old");
};

TEST_F(IdentityCrashTest, EveryInterruptedExchangeLeavesAUsableIdentity) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer cannot start threads in a child of a threaded process";
#endif
  const char* names[] = {"provisioning", "renewal", "authority"};
  const char* runsText = getenv("DAXO_CRASH_RUNS");
  int randomRuns = runsText != nullptr ? atoi(runsText) : 0;
  std::mt19937 random(std::random_device{}());
  for (Exchange exchange : {kProvisioning, kRenewal, kAuthority}) {
    SCOPED_TRACE(names[exchange]);
    int runs = 0, broken = 0, steps = 0;
    std::string at;
    for (int step = 1; step < 50 && Interrupt(exchange, step, {}, &at); ++step, ++steps) {
      ++runs;
      std::string wrong = Judge(exchange);
      broken += !wrong.empty();
      EXPECT_EQ(wrong, "") << "killed at step " << step << " (" << at << ")";
      // Only a proven pair may stay; anything earlier goes back to the old.
      if (exchange == kRenewal) {
        EXPECT_EQ(testcert::ReadFile(dir / "certs/priv_key.key") == identity.key, at != "accepted")
            << "killed at step " << step << " (" << at << ")";
      }
    }
    EXPECT_GE(steps, exchange == kAuthority ? 2 : 4) << "every write and rename was reached";
    auto start = Clock::now();
    Interrupt(exchange, 0);
    auto whole = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
    EXPECT_EQ(Judge(exchange), "");
    if (exchange == kRenewal) {
      EXPECT_NE(testcert::ReadFile(dir / "certs/priv_key.key"), identity.key) << "renewed";
    }
    for (int i = 0; i < randomRuns; ++i) {
      std::uniform_int_distribution<long> at(1, whole.count());
      ++runs;
      Interrupt(exchange, 0, std::chrono::microseconds(at(random)));
      std::string wrong = Judge(exchange);
      broken += !wrong.empty();
      EXPECT_EQ(wrong, "") << "random kill " << i;
    }
    printf("%s: %d steps, %d runs, %d broken identities, %lld us per exchange\n", names[exchange],
           steps, runs, broken, static_cast<long long>(whole.count()));
  }
}

}  // namespace

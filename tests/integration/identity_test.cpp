// A connected client whose agent answers its renewal with something it must
// not install: the working identity stays, and so does the connection.
#include <gtest/gtest.h>
#include <mosquitto.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>

#include "../support/test_certificates.h"
#include "daxo_client.h"
#include "daxo_internal.h"
#include "environment.h"
#include "library_client.h"

namespace daxo_test {
namespace {

using namespace std::chrono_literals;

using testcert::ReadFile;

// The agent's side of the broker, scripted by the test: it hears the
// client's renewal requests and answers what it is told to.
class StandInAgent {
 public:
  explicit StandInAgent(const TestEnvironment& env) : mosq_(mosquitto_new("stand-in", true, this)) {
    std::string folder = env.Folder().string();
    mosquitto_tls_set(mosq_, env.CaFile().c_str(), nullptr, (folder + "/agent.crt").c_str(),
                      (folder + "/agent.key").c_str(), nullptr);
    mosquitto_message_callback_set(mosq_, [](mosquitto*, void* self, const mosquitto_message* m) {
      auto* agent = static_cast<StandInAgent*>(self);
      std::lock_guard lock(agent->mutex_);
      agent->request_.assign(static_cast<const char*>(m->payload), m->payloadlen);
      agent->changed_.notify_all();
    });
    mosquitto_subscribe_callback_set(mosq_, [](mosquitto*, void* self, int, int, const int*) {
      auto* agent = static_cast<StandInAgent*>(self);
      std::lock_guard lock(agent->mutex_);
      agent->subscribed_ = true;
      agent->changed_.notify_all();
    });
    mosquitto_connect_callback_set(mosq_, [](mosquitto* m, void*, int rc) {
      if (rc == 0) mosquitto_subscribe(m, nullptr, "/v1.0/+/renewCertificate", 1);
    });
    mosquitto_connect(mosq_, env.Host().c_str(), env.MainPort(), 60);
    mosquitto_loop_start(mosq_);
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 10s, [&] { return subscribed_; });
  }
  ~StandInAgent() {
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
    mosquitto_destroy(mosq_);
  }
  void Send(const std::string& topic, const std::string& payload) {
    mosquitto_publish(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                      payload.data(), 1, false);
  }
  // The latest renewal request, once one has come.
  std::string Request() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 20s, [&] { return !request_.empty(); });
    return request_;
  }

 private:
  mosquitto* mosq_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string request_;
  bool subscribed_ = false;
};

// The client's own renewal request comes back through its subscription as
// an answer of the wrong shape: refusals are told apart by their lines.
void OnRenewal(DAXO_Client*, void* self, DAXO_Error err) {
  if (err != DAXO_Error_WrongReply) static_cast<LibraryClient*>(self)->Record("renewal", err);
}

TEST_F(LibraryTest, ABrokenRenewalAnswerChangesNothing) {
  TestEnvironment env;
  std::string caCopy = (env.Folder() / "client-ca.crt").string();
  std::filesystem::copy_file(env.CaFile(), caCopy);
  LibraryClient c(env, {.caFile = caCopy});
  ASSERT_TRUE(c.ProvisionAndConnect());
  env.StopAgent();
  StandInAgent agent(env);
  std::string id = c.Id(), tree = "/v1.0/" + c.Id();
  auto files = [&] {
    return ReadFile(c.CertFolder() + "/priv_key.key") + ReadFile(c.CertFolder() + "/cert.crt") +
           ReadFile(caCopy);
  };
  std::string before = files();
  using Answer = std::function<std::string(const std::string& request)>;
  const struct {
    Answer certificate;  // null: the answer offers `authority` instead
    std::string authority;
    std::string refusal;  // the line's reason; empty: installed, then refused by the broker
  } cases[] = {
      {[](auto&) { return std::string("this is not a certificate"); }, "",
       "client certificate is refused (not a PEM certificate)"},
      {[&](auto&) { return testcert::SelfSigned(id); }, "",
       "client certificate is refused (the certificate is for another key)"},
      {[](auto& r) { return testcert::IssuedFor(r, "someone-else"); }, "",
       "client certificate is refused (the certificate names another client)"},
      // The authority of clients need not be the broker's, so this one is
      // tried; the broker refuses it and the old pair is put back.
      {[&](auto& r) { return testcert::IssuedFor(r, id); }, "", ""},
      {nullptr, "not a certificate", "certificate authority is refused (not a PEM certificate)"},
      {nullptr, testcert::SelfSigned("CA"),
       "certificate authority is refused (not a certificate authority)"},
  };
  c->OnCertificateRenew = OnRenewal;
  for (const auto& k : cases) {
    SCOPED_TRACE(k.refusal);
    agent.Send(tree + "/checkExpireDate/inbox", testcert::ExpiringAnswer(k.authority));
    if (k.certificate) agent.Send(tree + "/renewCertificate/inbox", k.certificate(agent.Request()));
    if (k.refusal.empty()) {
      EXPECT_EQ(c.Code("renewal"), DAXO_Error_ClientCertificateRefused);
      EXPECT_TRUE(c.WaitForLog("the old one is put back"));
      // Refused at once or after the handshake; either way back with the old pair.
      int connected = c.Code("connect");
      if (connected == DAXO_Error_ClientCertificateRefused) connected = c.Code("connect");
      EXPECT_EQ(connected, DAXO_Error_Success);
    } else {
      EXPECT_TRUE(c.WaitForLog(k.refusal));
    }
    EXPECT_EQ(files(), before);
    EXPECT_EQ(__atomic_load_n(&c->mainWatch.connected, __ATOMIC_ACQUIRE), 1);
    EXPECT_EQ(c.Next("disconnect", {}).code, LibraryClient::kNone);
  }
}

}  // namespace
}  // namespace daxo_test

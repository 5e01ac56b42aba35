// What the development agent and the broker do with what the library never
// sends, seen by bare MQTT clients: refused provisioning requests and the
// access rules of the main port.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <mosquitto.h>
#include <openssl/pem.h>

#include <condition_variable>
#include <mutex>
#include <optional>

#include "environment.h"

namespace daxo_test {
namespace {

using namespace std::chrono_literals;

std::string Member(const std::string& json, const char* key) {
  std::unique_ptr<json_object, decltype(&json_object_put)> body(json_tokener_parse(json.c_str()),
                                                                json_object_put);
  json_object* member = nullptr;
  return json_object_object_get_ex(body.get(), key, &member) ? json_object_get_string(member) : "";
}

struct Message {
  std::string topic, payload;
};

// A TLS client that records what it receives.
class Probe {
 public:
  template <class Use>
  auto Locked(Use use) {
    std::lock_guard lock(mutex_);
    changed_.notify_all();
    return use(*this);
  }
  explicit Probe(const std::string& id) : mosq_(mosquitto_new(id.c_str(), true, this)) {
    mosquitto_connect_callback_set(mosq_, [](mosquitto*, void* self, int rc) {
      Self(self).Locked([&](Probe& p) { p.connack_ = rc; });
    });
    mosquitto_message_callback_set(mosq_, [](mosquitto*, void* self, const mosquitto_message* m) {
      Self(self).Locked([&](Probe& p) {
        p.received_.push_back({m->topic, std::string(static_cast<const char*>(m->payload),
                                                     static_cast<std::size_t>(m->payloadlen))});
      });
    });
  }
  ~Probe() {
    mosquitto_disconnect(mosq_);
    if (looping_) mosquitto_loop_stop(mosq_, false);
    mosquitto_destroy(mosq_);
  }

  // Anonymous without certFolder. The loop is driven here until the CONNACK:
  // libmosquitto reports a handshake that fails in its own thread to nobody.
  bool Connect(const TestEnvironment& env, int port, const std::string& certFolder = "") {
    std::string cert = certFolder + "/cert.crt", key = certFolder + "/priv_key.key";
    bool anonymous = certFolder.empty();
    if (mosquitto_tls_set(mosq_, env.CaFile().c_str(), nullptr, anonymous ? nullptr : cert.c_str(),
                          anonymous ? nullptr : key.c_str(), nullptr) != MOSQ_ERR_SUCCESS ||
        mosquitto_connect(mosq_, env.Host().c_str(), port, 30) != MOSQ_ERR_SUCCESS)
      return false;
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (connack_ < 0 && std::chrono::steady_clock::now() < deadline &&
           mosquitto_loop(mosq_, 50, 1) == MOSQ_ERR_SUCCESS) {
    }
    return connack_ == 0 && (looping_ = mosquitto_loop_start(mosq_) == MOSQ_ERR_SUCCESS);
  }
  // The broker handles it before anything published after it: no need to wait.
  bool Subscribe(const std::string& filter) {
    return mosquitto_subscribe(mosq_, nullptr, filter.c_str(), 2) == MOSQ_ERR_SUCCESS;
  }
  bool Publish(const std::string& topic, const std::string& payload) {
    return mosquitto_publish(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                             payload.data(), 2, false) == MOSQ_ERR_SUCCESS;
  }
  // Publishes, then waits for the first message on another topic below reply.
  std::optional<Message> Ask(const std::string& topic, const std::string& payload,
                             const std::string& reply) {
    std::size_t next = Locked([](Probe& p) { return p.received_.size(); });
    if (!Publish(topic, payload)) return std::nullopt;
    std::unique_lock lock(mutex_);
    std::optional<Message> found;
    changed_.wait_for(lock, 10s, [&] {
      for (; !found && next < received_.size(); ++next)
        if (received_[next].topic.starts_with(reply) && received_[next].topic != topic)
          found = received_[next];
      return found.has_value();
    });
    return found;
  }
  std::vector<Message> Received() {
    return Locked([](Probe& p) { return p.received_; });
  }

 private:
  static Probe& Self(void* self) { return *static_cast<Probe*>(self); }

  mosquitto* mosq_;
  bool looping_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  int connack_ = -1;
  std::vector<Message> received_;
};

// A PEM request, without a common name when commonName is empty; signed
// with another key than its own when forged.
std::string MakeRequest(const std::string& commonName, bool forged = false) {
  using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
  Key key(EVP_EC_gen("P-256"), EVP_PKEY_free), signer(EVP_EC_gen("P-256"), EVP_PKEY_free);
  std::unique_ptr<X509_REQ, decltype(&X509_REQ_free)> request(X509_REQ_new(), X509_REQ_free);
  if (!commonName.empty())
    X509_NAME_add_entry_by_NID(
        X509_REQ_get_subject_name(request.get()), NID_commonName, MBSTRING_UTF8,
        reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
  X509_REQ_set_pubkey(request.get(), key.get());
  X509_REQ_sign(request.get(), forged ? signer.get() : key.get(), EVP_sha256());
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
  PEM_write_bio_X509_REQ(bio.get(), request.get());
  char* data = nullptr;
  long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

class AgentTest : public ::testing::Test {
 protected:
  // A client of the main port with a certificate of the CA, subscribed to its tree.
  std::unique_ptr<Probe> Client(const std::string& id) {
    std::string folder = env_.NewCertFolder();
    env_.IssueClientCertificate(folder, {.commonName = id});
    auto probe = std::make_unique<Probe>(id);
    EXPECT_TRUE(probe->Connect(env_, env_.MainPort(), folder));
    EXPECT_TRUE(probe->Subscribe("/v1.0/" + id + "/#"));
    return probe;
  }

  TestEnvironment env_;
};

TEST_F(AgentTest, ProvisioningRefusesUnusableRequestsWithTheirCode) {
  Probe probe("provisioning");
  ASSERT_TRUE(probe.Connect(env_, env_.ProvisionPort()));
  ASSERT_TRUE(probe.Subscribe("/certBack/#"));
  struct Case {
    const char* name;
    std::string request;
    int code;  // 0: a certificate
  } cases[] = {
      {"valid", MakeRequest("kitchen"), 0},
      {"not PEM", "hello agent", 20},
      {"signature does not verify", MakeRequest("kitchen", true), 20},
      {"empty", "", 21},
      {"no common name", MakeRequest(""), 22},
      {"slash in the name", MakeRequest("bad/name"), 25},
      {"plus in the name", MakeRequest("bad+name"), 25},
      {"hash in the name", MakeRequest("bad#name"), 25},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::optional<Message> answer = probe.Ask("/createConnector", c.request, "/certBack/");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->topic.ends_with("/error"), c.code != 0) << answer->topic;
    if (c.code == 0) continue;
    EXPECT_EQ(Member(answer->payload, "errorcode"), std::to_string(c.code)) << answer->payload;
  }
}

TEST_F(AgentTest, MainPortAdmitsOnlyCertifiedClientsAndOnlyToTheirOwnTree) {
  EXPECT_FALSE(Probe("anonymous").Connect(env_, env_.MainPort()));
  const std::string ping = R"({"request":"CheckProvisioning"})";
  std::unique_ptr<Probe> alpha = Client("alpha"), beta = Client("beta");
  beta->Subscribe("/v1.0/alpha/#");  // the broker may grant it: delivery is what counts
  ASSERT_TRUE(alpha->Ask("/v1.0/alpha/ping", ping, "/v1.0/alpha/"));
  ASSERT_TRUE(beta->Publish("/v1.0/alpha/ping", ping));
  // Beta's own answer comes after anything the agent did for the forged ping.
  ASSERT_TRUE(beta->Ask("/v1.0/beta/ping", ping, "/v1.0/beta/"));
  ASSERT_TRUE(env_.WaitForAgentOutput("sent /v1.0/beta/ping/info/inbox"));

  for (const Message& m : beta->Received())
    EXPECT_FALSE(m.topic.starts_with("/v1.0/alpha")) << m.topic;
  std::vector<std::string> lines = env_.AgentOutput();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "daxo-agent: received /v1.0/alpha/ping " + ping),
            1);
}

}  // namespace
}  // namespace daxo_test

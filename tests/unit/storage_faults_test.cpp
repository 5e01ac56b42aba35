// Storage that fills up or turns read-only while an identity is stored: the
// working identity stays, the outcome is a failure and nothing is
// disconnected. Needs mounts (the suite runs as root); skipped without.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "client_fixture.h"
#include "test_certificates.h"

namespace {

namespace fs = std::filesystem;

class StorageFaultsTest : public FakeClientTest {
 protected:
  void TearDown() override {
    FakeClientTest::TearDown();
    if (mounted_) umount2((dir / "certs").c_str(), MNT_DETACH);
  }

  // The certificate folder on a 64 KiB file system, or read-only; false
  // where mounting is not permitted.
  bool Mount(bool full) {
    fs::path folder = dir / "certs";
    fs::create_directories(folder);
    int rc = full ? mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=64k,mode=0700")
                  : mount(folder.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr);
    if (rc != 0) return false;
    mounted_ = true;
    return true;
  }

  void Store() {
    std::ofstream(dir / "certs/priv_key.key") << identity.key;
    std::ofstream(dir / "certs/cert.crt") << identity.cert;
    std::ofstream(client->caFile) << testcert::Authority("old");
  }

  // The folder can take no new file: full, or remounted read-only.
  void Block(bool full) {
    if (!full) {
      fs::path folder = dir / "certs";
      ASSERT_EQ(mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
                0)
          << strerror(errno);
      return;
    }
    std::ofstream filler(dir / "certs/filler");
    std::string page(4096, 'x');
    while (filler.write(page.data(), page.size()) && filler.flush()) {
    }
  }

  std::string Files() {
    return testcert::ReadFile(dir / "certs/priv_key.key") +
           testcert::ReadFile(dir / "certs/cert.crt") + testcert::ReadFile(client->caFile);
  }

  testcert::Identity identity = testcert::MakeIdentity("client-1");

 private:
  bool mounted_ = false;
};

TEST_F(StorageFaultsTest, AFullOrReadOnlyFolderKeepsTheWorkingIdentity) {
  const struct {
    const char* name;
    bool full;
    bool authority;  // the authority file sits in the folder and is offered anew
  } cases[] = {
      {"renewal on a full disk", true, false},
      {"renewal in a read-only folder", false, false},
      {"authority in a read-only folder", false, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    client->OnCertificateRenew = [](DAXO_Client*, void* self, DAXO_Error err) {
      Self(self).calls.push_back({"renewal", err, ""});
    };
    if (!Mount(c.full)) GTEST_SKIP() << "mounting is not permitted here: " << strerror(errno);
    free(client->caFile);
    client->caFile = strdup((dir / "certs/ca.crt").c_str());
    Store();
    FakeMqtt& fake = Connected();
    std::string before = Files();
    Block(c.full);
    fake.Deliver("/v1.0/client-1/checkExpireDate/inbox",
                 testcert::ExpiringAnswer(c.authority ? testcert::Authority("new") : ""));
    if (!c.authority) {
      Settle();
      fake.Deliver("/v1.0/client-1/renewCertificate/inbox",
                   testcert::IssuedFor(fake.publishes.back().payload, "client-1"));
    }
    Settle();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].code, DAXO_Error_WritingToCertificateFile);
    EXPECT_EQ(Files(), before);
    EXPECT_EQ(fake.disconnects, 0) << "the connection stays";
    for (const char* left : {"certs/cert.crt.new", "certs/cert.crt.old", "certs/priv_key.key.old"})
      EXPECT_FALSE(fs::exists(dir / left)) << left;
    TearDown();  // each case on a fresh client and mount
    SetUp();
  }
}

// The disk fills once the new pair is installed, and its connection fails:
// going back must need no space.
TEST_F(StorageFaultsTest, AFailedTrialOnAFullDiskPutsBackTheWorkingIdentity) {
  client->OnCertificateRenew = [](DAXO_Client*, void* self, DAXO_Error err) {
    Self(self).calls.push_back({"renewal", err, ""});
  };
  if (!Mount(true)) GTEST_SKIP() << "mounting is not permitted here: " << strerror(errno);
  Store();
  FakeMqtt& fake = Connected();
  std::string before = Files();
  FakeMqtt::OnCreate([this](FakeMqtt& trial) {
    Block(true);
    trial.connectResult = MOSQ_ERR_INVAL;
  });
  fake.Deliver("/v1.0/client-1/checkExpireDate/inbox", testcert::ExpiringAnswer(""));
  Settle();
  fake.Deliver("/v1.0/client-1/renewCertificate/inbox",
               testcert::IssuedFor(fake.publishes.back().payload, "client-1"));
  Settle();
  FakeMqtt::OnCreate(nullptr);
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls[0].name, "renewal");
  EXPECT_EQ(calls[0].code, DAXO_Error_InvalidArguments) << "the trial's own failure";
  EXPECT_EQ(Files(), before);
  EXPECT_FALSE(fs::exists(dir / "certs/cert.crt.old"));
}

TEST_F(StorageFaultsTest, ProvisioningOnAFullDiskStoresNothing) {
  if (!Mount(true)) GTEST_SKIP() << "mounting is not permitted here: " << strerror(errno);
  std::ofstream(client->caFile) << testcert::Authority("CA");
  ASSERT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success);
  FakeMqtt& fake = *FakeMqtt::Last();
  fake.FireConnect(0);
  Block(true);
  std::string request = fake.publishes.back().payload;
  fake.Deliver("/certBack/" + testcert::Sha256Hex(request), testcert::IssuedFor(request, "d"));
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].code, DAXO_Error_CreateCertificate);
  EXPECT_FALSE(fs::exists(dir / "certs/cert.crt")) << "no empty certificate";
  fs::remove(dir / "certs/filler");
  ASSERT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success) << "a later attempt can succeed";
}

}  // namespace

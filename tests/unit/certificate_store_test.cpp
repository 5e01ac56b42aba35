#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "alloc_failure.h"
#include "daxo_internal.h"
#include "fake_mqtt.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

class CertificateStoreTest : public testing::Test {
 protected:
  void SetUp() override { UseFolder(dir / "certs"); }
  void TearDown() override { DAXO_DeleteClient(client); }

  void UseFolder(const std::string& folder) {
    DAXO_DeleteClient(client);
    logs.clear();
    std::string conf =
        dir.Write("client.conf", "MqttHost h\nMqttPort 1\nMqttProvisionPort 2\nCaFile " +
                                     (dir / "ca.crt") + "\nCertFolder " + folder + "\n");
    DAXO_Error err;
    client = NewClientInternal(conf.c_str(), &logs, &err, FakeMqtt::Create, FakeMqtt::Destroy);
    ASSERT_NE(client, nullptr);
    DAXO_LogCallbackSet(client, [](DAXO_Client*, const char* line, void* logs) {
      static_cast<std::vector<std::string>*>(logs)->push_back(line);
    });
  }
  int Write(const std::string& name, const std::string& content) {
    return WriteCertificateFile(client, name.c_str(), content.data(),
                                static_cast<int>(content.size()));
  }
  static std::string Read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }
  static unsigned Mode(const std::string& path) {
    struct stat st {};
    stat(path.c_str(), &st);
    return st.st_mode & 07777;
  }

  TempDir dir;
  DAXO_Client* client = nullptr;
  std::vector<std::string> logs;
};

TEST_F(CertificateStoreTest, FirstWriteCreatesTheFolderAndLaterWritesTruncate) {
  mode_t old = umask(0);
  EXPECT_EQ(Write("cert.crt", "a long first certificate"), 1);
  umask(027);
  EXPECT_EQ(Write("priv_key.key", "key"), 1);
  umask(old);
  EXPECT_EQ(Mode(dir / "certs"), 0700u);
  EXPECT_EQ(Mode(dir / "certs/cert.crt"), 0644u);
  EXPECT_EQ(Mode(dir / "certs/priv_key.key"), 0640u) << "the mask applies";
  EXPECT_EQ(Write("cert.crt", "short"), 1);
  EXPECT_EQ(Read(dir / "certs/cert.crt"), "short");
  EXPECT_EQ(WriteCertificateFile(client, "cert.crt", "x", 0), 0);
  EXPECT_TRUE(logs.empty());
}

TEST_F(CertificateStoreTest, FailedWritesSayWhy) {
  std::string file = dir.Write("plain", "");
  fs::create_directory(dir / "certs");
  struct Case {
    std::string folder, name, log;
  } cases[] = {
      {file, "cert.crt", "There is a file with name \"" + file + "\""},
      {dir / "missing/certs", "cert.crt", "mkdir, errno - 2"},
      {dir.Path().string(), "certs",
       "Could not open file \"" + (dir / "certs") + "\" for writing. errno 21"},
      {"/dev", "full", "Could not write in file \"/dev/full\", errno 28"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.folder);
    UseFolder(c.folder);
    EXPECT_EQ(Write(c.name, "pem"), 0);
    EXPECT_EQ(logs, std::vector<std::string>{"WriteCertificateFile failed. " + c.log});
  }
  EXPECT_FALSE(fs::exists(dir / "missing"));
}

TEST_F(CertificateStoreTest, ProvisionedOnlyWithAllFourEntries) {
  struct Case {
    bool folder, ca, key, cert;
  } cases[] = {{1, 1, 1, 1}, {0, 1, 0, 0}, {1, 0, 1, 1}, {1, 1, 0, 1}, {1, 1, 1, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    fs::remove_all(dir / "certs");
    fs::remove(dir / "ca.crt");
    if (c.folder) fs::create_directory(dir / "certs");
    if (c.ca) dir.Write("ca.crt", "");
    if (c.key) dir.Write("certs/priv_key.key", "");
    if (c.cert) dir.Write("certs/cert.crt", "");
    EXPECT_EQ(CheckCertificates(client), c.folder && c.ca && c.key && c.cert);
  }
}

TEST_F(CertificateStoreTest, DeletionRemovesTheKeyFirstAndStopsAtTheFirstError) {
  dir.Write("ca.crt", "a");
  ASSERT_EQ(Write("priv_key.key", "k") + Write("cert.crt", "c"), 2);
  EXPECT_EQ(DeleteCertificates(client), 0);
  EXPECT_FALSE(fs::exists(dir / "certs/priv_key.key") || fs::exists(dir / "certs/cert.crt"));
  EXPECT_TRUE(fs::is_directory(dir / "certs") && fs::exists(dir / "ca.crt"));

  Write("cert.crt", "c");
  EXPECT_EQ(DeleteCertificates(client), ENOENT);
  EXPECT_TRUE(fs::exists(dir / "certs/cert.crt")) << "kept when the key is missing";
  Write("priv_key.key", "k");
  fs::remove(dir / "certs/cert.crt");
  EXPECT_EQ(DeleteCertificates(client), ENOENT);
  EXPECT_FALSE(fs::exists(dir / "certs/priv_key.key"));
}

TEST_F(CertificateStoreTest, UnformattablePathsAreLogged) {
  // Each outcome: the result, the line logged and the files left behind.
  auto outcomes = [&](int (*call)(DAXO_Client*)) {
    std::set<std::string> seen;
    auto populate = [&] {
      dir.Write("ca.crt", ""), Write("priv_key.key", "k"), Write("cert.crt", "c");
    };
    populate();
    alloc_failure::ForEachAllocationFailure(
        [&] { return call(client); },
        [&](int rc, long, bool) {
          for (const std::string& line : logs)
            seen.insert(std::to_string(rc) + " " + line +
                        (fs::exists(dir / "certs/priv_key.key") ? " +key" : "") +
                        (fs::exists(dir / "certs/cert.crt") ? " +cert" : ""));
          logs.clear();
          populate();
        });
    return seen;
  };
  EXPECT_EQ(outcomes(CheckCertificates),
            (std::set<std::string>{
                "0 CheckCertificates: Failed to create key file path +key +cert",
                "0 CheckCertificates: Failed to create certificate file path +key +cert"}));
  EXPECT_EQ(outcomes(DeleteCertificates),
            (std::set<std::string>{
                "0 DeleteCertificates: Failed to create key file path +key +cert",
                "0 DeleteCertificates: Failed to create certificate file path +cert"}));
}

}  // namespace

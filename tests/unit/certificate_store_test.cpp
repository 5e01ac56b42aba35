#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <sstream>

#include "client_fixture.h"

namespace {

namespace fs = std::filesystem;

class CertificateStoreTest : public FakeClientTest {
 protected:
  int Write(const std::string& name, const std::string& content) {
    return WriteCertificateFile(client, name.c_str(), content.data(), int(content.size()));
  }
  // "mode content" of a path; a folder's content reads as empty.
  static std::string State(const std::string& path) {
    struct stat st {};
    stat(path.c_str(), &st);
    std::ostringstream out;
    out << std::oct << (st.st_mode & 07777) << " " << std::ifstream(path).rdbuf();
    return out.str();
  }
};

TEST_F(CertificateStoreTest, WritesReplaceWholeFilesKeepKeysPrivateAndDeletionStopsAtAMissingKey) {
  mode_t old = umask(0);
  EXPECT_EQ(Write("cert.crt", "a long first certificate"), 1);
  chmod((dir / "certs").c_str(), 0755);  // as an installer may have made it
  EXPECT_EQ(Write("priv_key.key", "key"), 1);
  chmod((dir / "certs/cert.crt").c_str(), 0640);
  umask(022);
  EXPECT_EQ(Write("cert.crt", "short"), 1);
  umask(old);
  EXPECT_EQ(State(dir / "certs/cert.crt"), "640 short") << "replaced whole, its mode kept";
  EXPECT_EQ(State(dir / "certs/priv_key.key"), "600 key") << "whatever the mask and folder";
  EXPECT_EQ(DeleteCertificates(client), 0);
  EXPECT_TRUE(fs::is_empty(dir / "certs")) << "no temporary file left";
  Write("cert.crt", "c");
  EXPECT_EQ(DeleteCertificates(client), ENOENT);
  EXPECT_TRUE(fs::exists(dir / "certs/cert.crt")) << "the key goes first";
  EXPECT_TRUE(logs.empty());
}

TEST_F(CertificateStoreTest, FailedWritesSayWhyAndLeaveTheOldFile) {
  std::string file = dir.Write("plain", "");
  fs::create_directories(dir / "certs/cert.crt");
  const std::string cases[][3] = {
      {file, "cert.crt", "WriteCertificateFile failed. There is a file with name \"" + file + "\""},
      {dir / "missing/certs", "cert.crt", "WriteCertificateFile failed. mkdir, errno - 2"},
      {dir / "certs", "cert.crt",
       "Identity: " + (dir / "certs/cert.crt") + " cannot be written: Is a directory"},
  };
  for (const auto& [folder, name, log] : cases) {
    free(client->certFolder);
    client->certFolder = strdup(folder.c_str());
    logs.clear();
    EXPECT_EQ(Write(name, "pem"), 0);
    EXPECT_EQ(logs, std::vector<std::string>{log});
  }
  EXPECT_FALSE(fs::exists(dir / "missing"));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir / "certs"), {}), 1) << "no temporary left";
}

}  // namespace

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

TEST_F(CertificateStoreTest, WritesMakeAPrivateFolderAndTruncateAndDeletionStopsAtAMissingKey) {
  mode_t old = umask(0);
  EXPECT_EQ(Write("cert.crt", "a long first certificate"), 1);
  umask(027);
  EXPECT_EQ(Write("priv_key.key", "key"), 1);
  umask(old);
  EXPECT_EQ(Write("cert.crt", "short"), 1);
  EXPECT_EQ(State(dir / "certs") + State(dir / "certs/cert.crt"), "700 644 short");
  EXPECT_EQ(State(dir / "certs/priv_key.key"), "640 key") << "the mask applies";
  EXPECT_EQ(DeleteCertificates(client), 0);
  EXPECT_TRUE(fs::is_empty(dir / "certs"));
  Write("cert.crt", "c");
  EXPECT_EQ(DeleteCertificates(client), ENOENT);
  EXPECT_TRUE(fs::exists(dir / "certs/cert.crt")) << "the key goes first";
  EXPECT_TRUE(logs.empty());
}

TEST_F(CertificateStoreTest, FailedWritesSayWhy) {
  std::string file = dir.Write("plain", "");
  fs::create_directory(dir / "certs");
  const std::string cases[][3] = {
      {file, "cert.crt", "There is a file with name \"" + file + "\""},
      {dir / "missing/certs", "cert.crt", "mkdir, errno - 2"},
      {dir.Path(), "certs",
       "Could not open file \"" + (dir / "certs") + "\" for writing. errno 21"},
      {"/dev", "full", "Could not write in file \"/dev/full\", errno 28"},
  };
  for (const auto& [folder, name, log] : cases) {
    free(client->certFolder);
    client->certFolder = strdup(folder.c_str());
    logs.clear();
    EXPECT_EQ(Write(name, "pem"), 0);
    EXPECT_EQ(logs, std::vector<std::string>{"WriteCertificateFile failed. " + log});
  }
  EXPECT_FALSE(fs::exists(dir / "missing"));
}

}  // namespace

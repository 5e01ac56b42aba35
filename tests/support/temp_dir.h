// A temporary folder per test, removed with everything in it.
#ifndef DAXO_TEST_TEMP_DIR_H
#define DAXO_TEST_TEMP_DIR_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

class TempDir {
 public:
  TempDir() {
    const char* base = std::getenv("DAXO_TEST_TMP");
    std::filesystem::path root = base != nullptr ? base : std::filesystem::temp_directory_path();
    std::filesystem::create_directories(root);
    std::string pattern = (root / "daxo-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    path_ = pattern;
  }
  ~TempDir() { std::filesystem::remove_all(path_, ignored_); }
  TempDir(const TempDir&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  // Writes content byte for byte; returns the file's path.
  std::string Write(const std::string& name, const std::string& content) const {
    std::ofstream(*this / name, std::ios::binary) << content;
    return *this / name;
  }

 private:
  std::filesystem::path path_;
  std::error_code ignored_;
};

// Every required key set, for tests that need a client but no particular
// configuration.
inline std::string ValidConfig(const TempDir& dir) {
  return "MqttHost localhost\nMqttPort 8883\nMqttProvisionPort 8884\nCaFile " + (dir / "ca.crt") +
         "\nCertFolder " + (dir / "certs") + "\n";
}

#endif

// The client's identity on disk. A file is replaced by writing a temporary
// file beside it, flushing it and renaming it over the old one, so that a
// power cut leaves the old content or the new, never a mixture. The key and
// the certificate must change together: both are first written as a pending
// pair (NAME.new), which is complete only when the certificate matches the
// key. A start that finds a complete pending pair installs it, and discards
// a pending certificate that matches nothing. A renewal that is still to be
// tried keeps the pair it replaces as NAME.old until its connection proves
// the new one: a start that finds them puts them back, as the old pair is
// the one known to work.
#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "daxo_internal.h"
#include "open_ssl_connector.h"
#include "string_utils.h"

extern "C" {
void (*IdentityStepHook)(const char* step) = nullptr;
}

namespace {

using daxo::CStr;
using daxo::Format;

constexpr char kPendingSuffix[] = ".new";
constexpr char kTemporarySuffix[] = ".tmp";
constexpr char kOldSuffix[] = ".old";

void Step(const char* step) noexcept {
  if (IdentityStepHook != nullptr) IdentityStepHook(step);
}

// A short write is as much a failure as a refused one: the rest is retried,
// and a write that makes no progress is a full disk.
int WriteAll(int fd, const char* content, size_t length) noexcept {
  while (length > 0) {
    ssize_t n = write(fd, content, length);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) return ENOSPC;
    content += n;
    length -= static_cast<size_t>(n);
  }
  return 0;
}

// The rename is durable only once the folder's entry is. A failure here
// comes after the rename has happened, so it is not reported as the
// replacement's failure.
void SyncFolderOf(const char* path) noexcept {
  char folder[PATH_MAX];
  int n = snprintf(folder, sizeof folder, "%s", path);
  if (n < 0 || static_cast<size_t>(n) >= sizeof folder) return;
  int fd = open(dirname(folder), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

// The mode and owner the new file takes: a key is private whatever its
// folder allows; anything else keeps what the file it replaces had, or
// takes 0644 under the umask (never changed here: other threads create
// files too).
struct Ownership {
  bool keep = false;
  mode_t mode = 0644;
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
};

Ownership OwnershipFor(const char* path, bool secret) noexcept {
  struct stat st;
  if (secret) return {true, 0600};
  if (stat(path, &st) != 0) return {};
  return {true, static_cast<mode_t>(st.st_mode & 07777), st.st_uid, st.st_gid};
}

int WriteTemporary(const char* temporary, const char* content, size_t length,
                   const Ownership& owner) noexcept {
  unlink(temporary);  // left by a write that was cut short
  int fd = open(temporary, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, owner.keep ? 0600 : 0644);
  if (fd < 0) return errno;
  Step("write");
  int rc = WriteAll(fd, content, length);
  if (rc == 0 && owner.keep && fchmod(fd, owner.mode) != 0) rc = errno;
  if (rc == 0 && owner.uid != static_cast<uid_t>(-1)) (void)!fchown(fd, owner.uid, owner.gid);
  if (rc == 0 && fsync(fd) != 0) rc = errno;
  if (close(fd) != 0 && rc == 0) rc = errno;
  if (rc != 0) unlink(temporary);
  return rc;
}

// 0, or the errno of the step that failed; the old file is then untouched.
int ReplaceFile(const char* path, const char* content, size_t length, bool secret) noexcept {
  CStr temporary = Format("%s%s", path, kTemporarySuffix);
  if (!temporary) return ENOMEM;
  int rc = WriteTemporary(temporary.get(), content, length, OwnershipFor(path, secret));
  if (rc != 0) return rc;
  Step("rename");
  if (rename(temporary.get(), path) != 0) {
    rc = errno;
    unlink(temporary.get());
    return rc;
  }
  SyncFolderOf(path);
  return 0;
}

int RenameDurably(const char* from, const char* to) noexcept {
  Step("rename");
  if (rename(from, to) != 0) return errno;
  SyncFolderOf(to);
  return 0;
}

CStr FolderFile(const DAXO_Client* client, const char* name, const char* suffix = "") noexcept {
  return Format("%s/%s%s", client->certFolder, name, suffix);
}

bool EnsureFolder(DAXO_Client* client) noexcept {
  struct stat st;
  if (stat(client->certFolder, &st) == 0) {
    if (S_ISDIR(st.st_mode)) return true;
    daxo::LogFormat(client, "The certificate folder %s is not a folder", client->certFolder);
    return false;
  }
  if (mkdir(client->certFolder, 0700) == 0) return true;
  daxo::LogFormat(client, "The certificate folder %s cannot be made: %s", client->certFolder,
                  strerror(errno));
  return false;
}

// Whole content of a file that exists; null (and *missing) otherwise.
CStr ReadIfPresent(const char* path, bool* missing) noexcept {
  *missing = access(path, F_OK) != 0;
  return CStr(*missing ? nullptr : GetFileContent(path));
}

// A pending certificate, if any, is installed when it matches the pending
// key (or, once that has been renamed, the installed one).
void CompletePending(DAXO_Client* client) noexcept {
  CStr pendingCert = FolderFile(client, daxo::kCertFileName, kPendingSuffix);
  CStr pendingKey = FolderFile(client, daxo::kKeyFileName, kPendingSuffix);
  CStr key = FolderFile(client, daxo::kKeyFileName);
  CStr cert = FolderFile(client, daxo::kCertFileName);
  if (!pendingCert || !pendingKey || !key || !cert) return;
  bool missing;
  CStr certText = ReadIfPresent(pendingCert.get(), &missing);
  if (missing) return;
  bool keyPending = access(pendingKey.get(), F_OK) == 0;
  daxo::SecretStr keyText(GetFileContent(keyPending ? pendingKey.get() : key.get()));
  const char* failure =
      certText && keyText
          ? CheckCertificateForKey(certText.get(), strlen(certText.get()), keyText.get(), nullptr)
          : "empty";
  if (failure != nullptr) {
    daxo::LogFormat(client, "Identity: the unfinished replacement in %s is discarded (%s)",
                    client->certFolder, failure);
    unlink(pendingCert.get());
    if (keyPending) unlink(pendingKey.get());
    return;
  }
  int rc = keyPending ? RenameDurably(pendingKey.get(), key.get()) : 0;
  if (rc == 0) rc = RenameDurably(pendingCert.get(), cert.get());
  daxo::LogFormat(client, "Identity: the unfinished replacement in %s %s", client->certFolder,
                  rc == 0 ? "is completed" : "could not be completed");
}

// A link costs no space and cannot be cut half-written; a folder that
// cannot hold links gets a durable copy.
int KeepCopy(const char* from, const char* to, bool secret) noexcept {
  unlink(to);
  if (link(from, to) == 0) return 0;
  if (errno != EPERM && errno != ENOTSUP && errno != EXDEV && errno != EMLINK) return errno;
  CStr content(GetFileContent(from));
  if (!content) return EIO;
  if (secret) {
    daxo::SecretStr wipe(content.release());
    return ReplaceFile(to, wipe.get(), strlen(wipe.get()), true);
  }
  return ReplaceFile(to, content.get(), strlen(content.get()), false);
}

// Puts back whichever old files make a pair with what is installed: a
// lone old file beside a pair it does not match is what an acceptance cut
// short leaves, and goes.
int PutBackKeptPair(DAXO_Client* client, bool* found) noexcept {
  CStr oldKey = FolderFile(client, daxo::kKeyFileName, kOldSuffix);
  CStr oldCert = FolderFile(client, daxo::kCertFileName, kOldSuffix);
  CStr key = FolderFile(client, daxo::kKeyFileName);
  CStr cert = FolderFile(client, daxo::kCertFileName);
  if (!oldKey || !oldCert || !key || !cert) return ENOMEM;
  bool keyKept = access(oldKey.get(), F_OK) == 0;
  bool certKept = access(oldCert.get(), F_OK) == 0;
  *found = keyKept || certKept;
  if (!*found) return 0;
  daxo::SecretStr keyText(GetFileContent(keyKept ? oldKey.get() : key.get()));
  CStr certText(GetFileContent(certKept ? oldCert.get() : cert.get()));
  bool pair = keyText && certText &&
              CheckCertificateForKey(certText.get(), strlen(certText.get()), keyText.get(),
                                     nullptr) == nullptr;
  int rc = 0;
  if (!pair) {
    *found = false;
    if (keyKept && unlink(oldKey.get()) != 0) rc = errno;
    if (certKept && unlink(oldCert.get()) != 0 && rc == 0) rc = errno;
    SyncFolderOf(key.get());
    return rc;
  }
  for (const char* name : {daxo::kKeyFileName, daxo::kCertFileName}) {
    CStr pending = FolderFile(client, name, kPendingSuffix);
    if (pending) unlink(pending.get());
  }
  // A rename onto another link of the same file leaves both names.
  if (certKept && (rc = RenameDurably(oldCert.get(), cert.get())) == 0) unlink(oldCert.get());
  if (rc == 0 && keyKept && (rc = RenameDurably(oldKey.get(), key.get())) == 0)
    unlink(oldKey.get());
  if (rc == 0) SyncFolderOf(key.get());
  return rc;
}

}  // namespace

namespace daxo {

bool KeepOldIdentity(DAXO_Client* client) noexcept {
  CStr key = FolderFile(client, kKeyFileName);
  CStr cert = FolderFile(client, kCertFileName);
  CStr oldKey = FolderFile(client, kKeyFileName, kOldSuffix);
  CStr oldCert = FolderFile(client, kCertFileName, kOldSuffix);
  if (!key || !cert || !oldKey || !oldCert) return false;
  Step("keep");
  int rc = KeepCopy(key.get(), oldKey.get(), true);
  if (rc == 0) rc = KeepCopy(cert.get(), oldCert.get(), false);
  if (rc != 0) {
    LogFormat(client, "Identity: the key and certificate in %s cannot be kept: %s",
              client->certFolder, strerror(rc));
    unlink(oldKey.get());
    unlink(oldCert.get());
    return false;
  }
  SyncFolderOf(key.get());
  return true;
}

void DropOldIdentity(DAXO_Client* client) noexcept {
  Step("drop");
  for (const char* name : {kKeyFileName, kCertFileName}) {
    CStr path = FolderFile(client, name, kOldSuffix);
    if (path && unlink(path.get()) != 0 && errno != ENOENT)
      LogFormat(client, "Identity: %s cannot be removed: %s", path.get(), strerror(errno));
  }
  if (CStr key = FolderFile(client, kKeyFileName); key) SyncFolderOf(key.get());
}

bool PutBackOldIdentity(DAXO_Client* client) noexcept {
  bool found = false;
  int rc = PutBackKeptPair(client, &found);
  if (rc != 0)
    LogFormat(client, "Identity: the old key and certificate in %s cannot be put back: %s",
              client->certFolder, strerror(rc));
  return rc == 0 && found;
}

int WriteDurably(DAXO_Client* client, const char* path, const char* content, size_t length,
                 bool secret) noexcept {
  int rc = ReplaceFile(path, content, length, secret);
  if (rc != 0) LogFormat(client, "Identity: %s cannot be written: %s", path, strerror(rc));
  return rc;
}

bool WritePendingKey(DAXO_Client* client, const char* key) noexcept {
  if (!EnsureFolder(client)) return false;
  CStr path = FolderFile(client, kKeyFileName, kPendingSuffix);
  return path && WriteDurably(client, path.get(), key, strlen(key), true) == 0;
}

char* ReadPendingKey(DAXO_Client* client) noexcept {
  CStr path = FolderFile(client, kKeyFileName, kPendingSuffix);
  return path ? GetFileContent(path.get()) : nullptr;
}

bool InstallIdentity(DAXO_Client* client, const char* key, const char* cert,
                     size_t certLength) noexcept {
  if (!EnsureFolder(client)) return false;
  CStr pendingKey = FolderFile(client, kKeyFileName, kPendingSuffix);
  CStr pendingCert = FolderFile(client, kCertFileName, kPendingSuffix);
  CStr keyPath = FolderFile(client, kKeyFileName);
  CStr certPath = FolderFile(client, kCertFileName);
  if (!pendingKey || !pendingCert || !keyPath || !certPath) return false;
  if (key != nullptr && WriteDurably(client, pendingKey.get(), key, strlen(key), true) != 0)
    return false;
  if (WriteDurably(client, pendingCert.get(), cert, certLength, false) != 0) {
    if (key != nullptr) unlink(pendingKey.get());
    return false;
  }
  // From here the pair is complete on disk: a start finishes what a power
  // cut interrupts.
  int rc = RenameDurably(pendingKey.get(), keyPath.get());
  if (rc == 0) rc = RenameDurably(pendingCert.get(), certPath.get());
  if (rc != 0) {
    // Left there, the next start would install a pair nothing has tried.
    unlink(pendingKey.get());
    unlink(pendingCert.get());
    SyncFolderOf(certPath.get());
    LogFormat(client, "Identity: %s cannot be installed: %s", certPath.get(), strerror(rc));
  }
  return rc == 0;
}

void RecoverIdentity(DAXO_Client* client) noexcept {
  if (client->certFolder == nullptr) return;
  for (const char* name : {kKeyFileName, kCertFileName}) {
    for (const char* suffix : {kPendingSuffix, kOldSuffix}) {
      CStr temporary = Format("%s/%s%s%s", client->certFolder, name, suffix, kTemporarySuffix);
      if (temporary) unlink(temporary.get());
    }
  }
  // A trial of this process's own is judged by its connection instead.
  bool found = false;
  int rc = Load(client->renewalTrial) == RenewalTrialNone ? PutBackKeptPair(client, &found) : 0;
  if (found)
    LogFormat(client, "Identity: a renewal in %s was stopped before its trial ended; %s",
              client->certFolder,
              rc == 0 ? "the old key and certificate are put back"
                      : "the old key and certificate cannot be put back");
  CompletePending(client);
}

DAXO_Error CheckStoredIdentity(DAXO_Client* client) noexcept {
  CStr keyPath = FolderFile(client, kKeyFileName);
  CStr certPath = FolderFile(client, kCertFileName);
  if (!keyPath || !certPath) return DAXO_Error_NoMemory;
  bool keyMissing, certMissing;
  SecretStr key(ReadIfPresent(keyPath.get(), &keyMissing).release());
  CStr cert = ReadIfPresent(certPath.get(), &certMissing);
  // Missing files are TLS's to name, as the folder may still be mounted.
  if (keyMissing || certMissing) return DAXO_Error_Success;
  const char* failure =
      !cert  ? "cert.crt is empty or unreadable"
      : !key ? "priv_key.key is empty or unreadable"
             : CheckCertificateForKey(cert.get(), strlen(cert.get()), key.get(), nullptr);
  if (failure != nullptr) {
    LogFormat(client,
              "Identity: the key and certificate in %s cannot be used (%s); reset the identity "
              "and provision again",
              client->certFolder, failure);
    return DAXO_Error_WrongCertificateFile;
  }
  char date[40];
  if (CertificateExpiry(cert.get(), strlen(cert.get()), date, sizeof date) == 1) {
    LogFormat(client,
              "Identity: the client certificate %s expired on %s; reset the identity and "
              "provision again",
              certPath.get(), date);
    return DAXO_Error_ClientCertificateExpired;
  }
  return DAXO_Error_Success;
}

DAXO_Error ResetIdentity(DAXO_Client* client) noexcept {
  if (client->certFolder == nullptr) return DAXO_Error_Success;
  DAXO_Error result = DAXO_Error_Success;
  // Kept files first, as a start would put them back; the key last, as a
  // lone certificate makes provisioning refuse to start over.
  const struct {
    const char* name;
    const char* suffix;
  } order[] = {
      {kCertFileName, kOldSuffix},    {kKeyFileName, kOldSuffix}, {kCertFileName, kPendingSuffix},
      {kKeyFileName, kPendingSuffix}, {kCertFileName, ""},        {kKeyFileName, ""}};
  for (const auto& file : order) {
    CStr path = FolderFile(client, file.name, file.suffix);
    if (!path) return DAXO_Error_NoMemory;
    if (unlink(path.get()) == 0 || errno == ENOENT) continue;
    LogFormat(client, "Identity: %s cannot be removed: %s", path.get(), strerror(errno));
    result = DAXO_Error_RemoveCertificates;
  }
  if (CStr key = FolderFile(client, kKeyFileName); key) SyncFolderOf(key.get());
  return result;
}

}  // namespace daxo

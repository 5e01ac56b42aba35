// The provisioning exchange and the certificate store.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daxo_internal.h"
#include "open_ssl_connector.h"
#include "string_utils.h"

extern "C" void ProvisionDisconnect(DAXO_Client* client) noexcept {
  if (client == nullptr || !daxo::Load(client->provisionLoopStarted)) return;
  daxo::SetSendable(client, client->provisionWatch, 0);
  MosquittoInterface* mi = client->mosqProvision;
  int rc = mi->mosquittoDisconnectFunction(mi);
  daxo::Store(client->provisionLoopStarted, 0);
  if (rc == MOSQ_ERR_INVAL || rc == MOSQ_ERR_NOT_SUPPORTED) return;
  // As for the main connection: a thread that never connected ignores the
  // request to disconnect.
  mi->mosquittoLoopStopFunction(
      mi, rc != MOSQ_ERR_SUCCESS || !daxo::Load(client->provisionWatch.connected));
}

extern "C" void FreeProvisionData(DAXO_Client* client) noexcept {
  if (client == nullptr) return;
  free(client->provisionDigest);
  free(client->provisionCert);
  client->provisionDigest = nullptr;
  client->provisionCert = nullptr;
  client->provisionCertLen = 0;
}

namespace {

using daxo::kCertFileName;
using daxo::kKeyFileName;

// Creates a missing folder (one level); an existing entry must be a directory.
bool EnsureCertFolder(DAXO_Client* client) noexcept {
  struct stat st;
  if (stat(client->certFolder, &st) != 0) {
    if (mkdir(client->certFolder, 0700) == 0) return true;
    daxo::LogFormat(client, "WriteCertificateFile failed. mkdir, errno - %d", errno);
    return false;
  }
  if (S_ISDIR(st.st_mode)) return true;
  daxo::LogFormat(client, "WriteCertificateFile failed. There is a file with name \"%s\"",
                  client->certFolder);
  return false;
}

// certFolder/fileName, formed without allocating: deprovisioning completes
// in a publish handler that cannot report a failure, so forming the paths of
// the files it removes must not depend on memory being available.
struct FolderPath {
  char text[PATH_MAX];
  bool Form(const DAXO_Client* client, const char* fileName) noexcept {
    int n = snprintf(text, sizeof text, "%s/%s", client->certFolder, fileName);
    return n >= 0 && static_cast<size_t>(n) < sizeof text;
  }
};

// 1 when certFolder/fileName exists, -1 when the path cannot be formed
// (formatFailure is logged): not knowing is not the same as absent.
int FolderFileExists(DAXO_Client* client, const char* fileName,
                     const char* formatFailure) noexcept {
  FolderPath path;
  if (!path.Form(client, fileName)) {
    LogMessage(client, formatFailure);
    return -1;
  }
  return access(path.text, F_OK) == 0;
}

// 0 when certFolder/fileName is removed, the errno of a failed removal, or
// -1 when the path cannot be formed (formatFailure is logged).
int RemoveFolderFile(DAXO_Client* client, const char* fileName,
                     const char* formatFailure) noexcept {
  FolderPath path;
  if (!path.Form(client, fileName)) {
    LogMessage(client, formatFailure);
    return -1;
  }
  return remove(path.text) == 0 ? 0 : errno;
}

}  // namespace

extern "C" int WriteCertificateFile(DAXO_Client* client, const char* fileName, const char* content,
                                    int contentLen) noexcept {
  if (client == nullptr || client->certFolder == nullptr || fileName == nullptr ||
      content == nullptr || contentLen <= 0)
    return 0;
  if (!EnsureCertFolder(client)) return 0;
  daxo::CStr path = daxo::Format("%s/%s", client->certFolder, fileName);
  if (path == nullptr) return 0;
  bool secret = strcmp(fileName, kKeyFileName) == 0;
  return daxo::WriteDurably(client, path.get(), content, static_cast<size_t>(contentLen), secret) ==
         0;
}

extern "C" int CheckCertificates(DAXO_Client* client) noexcept {
  if (client == nullptr || client->certFolder == nullptr || client->caFile == nullptr) return 0;
  struct stat st;
  if (stat(client->certFolder, &st) != 0) return 0;
  if (access(client->caFile, F_OK) != 0) return 0;
  int key =
      FolderFileExists(client, kKeyFileName, "CheckCertificates: Failed to create key file path");
  if (key <= 0) return key;
  return FolderFileExists(client, kCertFileName,
                          "CheckCertificates: Failed to create certificate file path");
}

// The key goes first: once it is gone the client counts as unprovisioned,
// whether or not the certificate can be removed after it.
extern "C" int DeleteCertificates(DAXO_Client* client) noexcept {
  if (client == nullptr || client->certFolder == nullptr) return 0;
  int rc =
      RemoveFolderFile(client, kKeyFileName, "DeleteCertificates: Failed to create key file path");
  if (rc != 0) return rc < 0 ? 0 : rc;
  rc = RemoveFolderFile(client, kCertFileName,
                        "DeleteCertificates: Failed to create certificate file path");
  return rc < 0 ? 0 : rc;
}

namespace {

using daxo::CStr;
using daxo::Format;

constexpr char kProvisioningClientId[] = "myid";
constexpr char kOrganisation[] = "QuellborneGmbH";
constexpr char kDefaultCommonName[] = "IOT-Client";
constexpr char kRequestTopic[] = "/createConnector";
constexpr char kReplyFilter[] = "/certBack/#";
constexpr size_t kDigestSize = 65;

void Deliver(DAXO_Client* client, DAXO_Error outcome) noexcept {
  if (OnProvisionCallback onProvision = daxo::Get(client->OnProvision))
    onProvision(client, client->callbackParameter, outcome);
}

// The request always travels on the provisioning instance: the main
// listener confines a client to its own tree, where the agent does not
// listen for requests.
DAXO_Error SendRequest(DAXO_Client* client) noexcept {
  return daxo::PublishOn(client->mosqProvision, kRequestTopic, client->provisionCert,
                         client->provisionCertLen, nullptr);
}

void ConnectCallback(struct mosquitto* mosq, void* obj, int result) noexcept {
  daxo::LibraryThreadScope libraryThread;
  auto* client = static_cast<DAXO_Client*>(obj);
  if (mosq == nullptr || client == nullptr) return;
  if (result != 0)
    return Deliver(client, daxo::NoteRefusal(daxo::ProvisionEndpoint(client), result));
  daxo::WatchConnected(client->provisionWatch);
  // A reconnection after the exchange has ended has nothing to ask for.
  if (client->provisionCert == nullptr) return;
  MosquittoInterface* mi = client->mosqProvision;
  int rc = mi->mosquittoSubscribeFunction(mi, nullptr, kReplyFilter, 2);
  if (rc != MOSQ_ERR_SUCCESS) return Deliver(client, daxo::SubscribeResultToError(rc));
  if (DAXO_Error err = SendRequest(client); err != DAXO_Error_Success) Deliver(client, err);
}

// The certificate is installed only once it is known to match the pending
// key: a broken answer must not cost the key that is waiting for a good one.
DAXO_Error StoreCertificate(DAXO_Client* client, const mosquitto_message* message) noexcept {
  auto* pem = static_cast<const char*>(message->payload);
  auto length = static_cast<size_t>(message->payloadlen);
  daxo::SecretStr key(daxo::ReadPendingKey(client));
  if (const char* why = CheckCertificateForKey(pem, length, key.get(), nullptr)) {
    daxo::LogFormat(client,
                    "ProcessCertBack: the certificate cannot be used (%s); nothing is stored", why);
    return DAXO_Error_WrongReply;
  }
  if (!daxo::InstallIdentity(client, nullptr, pem, length)) {
    LogMessage(client, "ProcessCertBack: WriteCertificateFile failed");
    return DAXO_Error_CreateCertificate;
  }
  CStr path = Format("%s/%s", client->certFolder, daxo::kCertFileName);
  if (!path) {
    LogMessage(client, "ProcessCertBack: Failed to create certificate folder path");
    return DAXO_Error_CertifcateFolderPath;
  }
  daxo::Reset(&client->clientId, nullptr);
  if (const char* failure = ReadCertificateCN(path.get(), &client->clientId)) {
    daxo::LogFormat(client, "ProcessCertBack: ReadCertificateCN failed (%s)", failure);
    return DAXO_Error_ReadCertificateCN;
  }
  return DAXO_Error_Success;
}

// True when levels name the reply topic of this client's pending request.
bool IsOurReply(DAXO_Client* client, const daxo::TopicLevels& levels) noexcept {
  const char* digest = levels[TopicIndexProvisionDigest];
  return levels.Count() > TopicIndexProvisionDigest && levels[TopicIndexCertBack] != nullptr &&
         strcmp(levels[TopicIndexCertBack], "certBack") == 0 && digest != nullptr &&
         client->provisionDigest != nullptr && strcmp(digest, client->provisionDigest) == 0;
}

void ProvisionMessageCallback(struct mosquitto* mosq, void* obj,
                              const struct mosquitto_message* message) noexcept {
  daxo::LibraryThreadScope libraryThread;
  auto* client = static_cast<DAXO_Client*>(obj);
  if (client == nullptr || message == nullptr || mosq == nullptr || message->payload == nullptr ||
      message->payloadlen == 0 || message->topic == nullptr)
    return;
  daxo::TopicLevels levels;
  if (!levels.Tokenise(message->topic))
    return LogMessage(client, "ProvisionMessageCallback: topic tokenise failed");
  if (IsOurReply(client, levels)) {
    if (levels.Count() == TopicIndexProvisionDigest + 1) return ProcessCertBack(client, message);
    const char* last = levels[TopicIndexCertBackError];
    if (levels.Count() == TopicIndexCertBackError + 1 && last != nullptr &&
        strcmp(last, "error") == 0)
      return ProcessCertBackError(client, message);
  }
  daxo::LogFormat(client, "ProvisionMessageCallback: Recieved message on unsupported topic: [%s]",
                  message->topic);
}

// The provisioning connection's lines reach OnLog as the main one's do: its
// TLS failures would otherwise be invisible.
void ProvisionLogCallback(struct mosquitto* mosq, void* obj, int level, const char* str) noexcept {
  daxo::LibraryThreadScope libraryThread;
  int e = errno;
  auto* client = static_cast<DAXO_Client*>(obj);
  if (mosq != nullptr && client != nullptr && str != nullptr)
    daxo::NoteTransportLine(daxo::ProvisionEndpoint(client), str);
  LogCallback(mosq, obj, level, str);
  errno = e;
}

// Makes the key and request of a new exchange and stores the key as
// pending; on success the client holds the request and its digest.
DAXO_Error PrepareRequest(DAXO_Client* client) noexcept {
  const char* name = client->clientName != nullptr ? client->clientName : kDefaultCommonName;
  char* request = nullptr;
  long requestLen = 0;
  char* keyText = nullptr;
  const char* failure = CreateCSR(name, kOrganisation, &request, &requestLen, &keyText);
  CStr requestOwner(request);
  daxo::SecretStr key(keyText);
  if (failure != nullptr) return DAXO_Error_CreateProvisionCertificate;
  FreeProvisionData(client);
  auto* digest = static_cast<char*>(malloc(kDigestSize));
  if (digest == nullptr) return DAXO_Error_NoMemory;
  sha256(request, digest);
  client->provisionDigest = digest;
  if (digest[0] == '\0') {  // libcrypto could not allocate for the digest
    FreeProvisionData(client);
    return DAXO_Error_NoMemory;
  }
  client->provisionCert = requestOwner.release();
  client->provisionCertLen = static_cast<int>(requestLen);
  if (!daxo::WritePendingKey(client, key.get())) {
    FreeProvisionData(client);
    return DAXO_Error_CreatePrivateKey;
  }
  return DAXO_Error_Success;
}

// A connection that is not running yet sends the pending request once it
// is accepted.
DAXO_Error ResendRequest(DAXO_Client* client) noexcept {
  daxo::MutexLock lock(&client->instanceMutex);
  return client->provisionWatch.sendable ? SendRequest(client) : DAXO_Error_Success;
}

DAXO_Error StartProvisioning(DAXO_Client* client, MosquittoInterface* mosquitto) noexcept {
  // An instance left by a failed attempt is replaced, not leaked.
  daxo::ReleaseProvisioning(client);
  errno = 0;
  MosquittoInterface* mi =
      client->createMosquittoClientFunction(mosquitto, kProvisioningClientId, 1, client);
  if (mi == nullptr) return errno == ENOMEM ? DAXO_Error_NoMemory : DAXO_Error_InvalidArguments;
  {
    daxo::MutexLock lock(&client->instanceMutex);
    client->mosqProvision = mi;
  }
  mi->mosquittoReconnectDelaySetFunction(mi, 1, 1, 0);
  mi->mosquittoLogCallbackSetFunction(mi, ProvisionLogCallback);
  mi->mosquittoConnectCallbackSetFunction(mi, ConnectCallback);
  mi->mosquittMessageCallbackSetFunction(mi, ProvisionMessageCallback);
  if (int rc = mi->mosquittoTlsSetFunction(mi, client->caFile, nullptr, nullptr, nullptr, nullptr);
      rc != MOSQ_ERR_SUCCESS) {
    daxo::LogFormat(client, "Connection to %s:%d: the authority file %s cannot be used: %s",
                    client->mqttHost, client->mqttProvisionPort, client->caFile,
                    mosquitto_strerror(rc));
    return DAXO_Error_TlsSetFailed;
  }
  daxo::ForgetFailures(client->provisionWatch);
  DAXO_Error err = daxo::StartAttempt(daxo::ProvisionEndpoint(client), mi);
  if (err == DAXO_Error_Success) daxo::Store(client->provisionLoopStarted, 1);
  return err;
}

// The answer and the owner's time limit race to end an exchange; only the
// one that ends it reports its outcome.
bool EndExchange(DAXO_Client* client) noexcept {
  return __atomic_exchange_n(&client->provisionDeadlineMs, 0, __ATOMIC_ACQ_REL) != 0;
}

}  // namespace

extern "C" void ProcessCertBack(DAXO_Client* client,
                                const struct mosquitto_message* message) noexcept {
  if (!EndExchange(client)) return LogMessage(client, "ProcessCertBack: the exchange has ended");
  FreeProvisionData(client);
  Deliver(client, StoreCertificate(client, message));
}

// An error reply that cannot be read still ends the exchange: the
// application hears of the failure instead of waiting for nothing.
extern "C" void ProcessCertBackError(DAXO_Client* client,
                                     const struct mosquitto_message* message) noexcept {
  if (!EndExchange(client)) return LogMessage(client, "ProcessCertBack: the exchange has ended");
  LogMessage(client, "ProvisionMessageCallback: Failed to provision client");
  FreeProvisionData(client);
  int code = 0;
  auto* payload = static_cast<const char*>(message->payload);
  if (!ParseErrorMessage(payload, &code, nullptr)) {
    LogParseErrorMessage(client, message->topic, payload);
    return Deliver(client, DAXO_Error_ClientProvision);
  }
  Deliver(client, ConvertApiError(code));
}

namespace daxo {

// An exchange whose connection never came up ends with the reason of its
// last failed attempt (a timeout when none failed); one whose connection was
// accepted waited for the agent.
void EndStalledExchange(DAXO_Client* client) noexcept {
  long long deadline = __atomic_load_n(&client->provisionDeadlineMs, __ATOMIC_ACQUIRE);
  if (deadline == 0 || NowMs() < deadline || !EndExchange(client)) return;
  DAXO_Error outcome = DAXO_Error_ClientProvision;
  {
    MutexLock lock(&client->ownerMutex);
    if (client->mosqProvision != nullptr && !Load(client->provisionWatch.connected))
      outcome = OutageReason(ProvisionEndpoint(client), client->provisionTimeoutMs);
    LogFormat(client, "Provisioning: no %s %s:%d within %lld s",
              outcome == DAXO_Error_ClientProvision ? "answer from" : "connection to",
              client->mqttHost, client->mqttProvisionPort, client->provisionTimeoutMs / 1000);
    ReleaseProvisioning(client);
    FreeProvisionData(client);
  }
  Deliver(client, outcome);
}

}  // namespace daxo

extern "C" DAXO_Error ProvisionClient(DAXO_Client* client, MosquittoInterface* mosquitto) noexcept {
  if (client == nullptr) return DAXO_Error_InvalidArguments;
  if (DAXO_Error err = PrepareRequest(client); err != DAXO_Error_Success) return err;
  // Pending before the request can leave: the answer may come at once.
  __atomic_store_n(&client->provisionDeadlineMs, daxo::NowMs() + client->provisionTimeoutMs,
                   __ATOMIC_RELEASE);
  DAXO_Error err = daxo::Load(client->provisionLoopStarted) ? ResendRequest(client)
                                                            : StartProvisioning(client, mosquitto);
  if (err != DAXO_Error_Success) {
    __atomic_store_n(&client->provisionDeadlineMs, 0, __ATOMIC_RELEASE);
    FreeProvisionData(client);
  }
  return err;
}

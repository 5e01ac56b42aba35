// Certificate renewal. The agent's answers arrive on the main connection's
// network thread, which cannot stop itself; the reconnection with the new
// files is therefore handed to the client's watch thread.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "c_handles.h"
#include "daxo_internal.h"
#include "open_ssl_connector.h"
#include "string_utils.h"

namespace {

constexpr int kRenewalDays = 30;
constexpr size_t kDateLength = 15;  // YYYYMMDD?HHMMSS
constexpr char kOrganisation[] = "QuellborneGmbH";
constexpr char kDefaultCommonName[] = "IOT-Client";

// An answer has exactly one level after its keyword: "inbox".
bool IsAnswer(char** topics, int count, int inboxLevel) noexcept {
  return count == inboxLevel + 1 && topics[inboxLevel] != nullptr &&
         strcmp(topics[inboxLevel], "inbox") == 0;
}

// Hands a reconnection to the watch thread, which owns content from now on.
DAXO_Error Schedule(DAXO_Client* client, RenewalTask task, const char* content) noexcept {
  char* copy = content != nullptr ? daxo::Dup(content) : nullptr;
  if (content != nullptr && copy == nullptr) return DAXO_Error_NoMemory;
  if (!daxo::Load(client->certCheckThreadStarted)) {
    free(copy);
    return DAXO_Error_ThreadCreate;
  }
  daxo::MutexLock lock(&client->certCheckThreadMutex);
  if (task == RenewalTaskRequest) {
    client->renewalRequested = 1;
  } else {
    free(client->renewalContent);
    client->renewalContent = copy;
    client->renewalTask = task;
  }
  pthread_cond_broadcast(&client->certCheckThreadCondition);
  return DAXO_Error_Success;
}

DAXO_Error AnswerAboutAuthority(DAXO_Client* client, json_object* answer) noexcept {
  const char* validity = GetStringValueForKeyFromJson(answer, "validity");
  if (validity == nullptr) return DAXO_Error_WrongReply;
  const char* newCa = GetStringValueForKeyFromJson(answer, "newCa");
  if (strcmp(validity, "new one available") != 0 || newCa == nullptr) return DAXO_Error_Success;
  DAXO_Error err = Schedule(client, RenewalTaskAuthority, newCa);
  return err == DAXO_Error_Success ? DAXO_Error_Busy : err;
}

// The outcome of an expiry answer; DAXO_Error_Busy stands for "none yet".
DAXO_Error HandleExpiryAnswer(DAXO_Client* client, const char* message) noexcept {
  daxo::JsonPtr answer = daxo::ParseJson(message);
  if (!answer) return DAXO_Error_WrongReply;
  const char* expiresAt = GetStringValueForKeyFromJson(answer.get(), "providedExpiresAt");
  if (expiresAt == nullptr || strlen(expiresAt) < kDateLength) return DAXO_Error_WrongReply;
  int expiring = WillDateExpireInDays(expiresAt, kRenewalDays);
  const char* type = GetStringValueForKeyFromJson(answer.get(), "certificateType");
  if (type == nullptr) return DAXO_Error_WrongReply;
  if (!expiring) return DAXO_Error_Success;
  if (strcmp(type, "client certificate") == 0) {
    // Making the key takes up to a second: not on the thread that delivers
    // every other message.
    DAXO_Error err = Schedule(client, RenewalTaskRequest, nullptr);
    return err == DAXO_Error_Success ? DAXO_Error_Busy : err;
  }
  if (strcmp(type, "certificate authority") == 0) return AnswerAboutAuthority(client, answer.get());
  return DAXO_Error_Success;
}

// The request of a pending renewal is sent again rather than replaced, so
// that the stored key always matches the certificate that comes back.
DAXO_Error PrepareRenewal(DAXO_Client* client) noexcept {
  if (client->newKeyContent != nullptr && client->provisionCert != nullptr)
    return DAXO_Error_Success;
  const char* name = client->clientName != nullptr ? client->clientName : kDefaultCommonName;
  char* request = nullptr;
  long requestLen = 0;
  char* key = nullptr;
  const char* failure = CreateCSR(name, kOrganisation, &request, &requestLen, &key);
  daxo::CStr ownedRequest(request);
  daxo::SecretStr ownedKey(key);
  if (failure != nullptr) return DAXO_Error_CreateProvisionCertificate;
  free(client->provisionCert);
  client->provisionCert = ownedRequest.release();
  client->provisionCertLen = static_cast<int>(requestLen);
  daxo::FreeSecret(client->newKeyContent);
  client->newKeyContent = ownedKey.release();
  return DAXO_Error_Success;
}

void DropRenewal(DAXO_Client* client) noexcept {
  FreeProvisionData(client);
  daxo::FreeSecret(client->newKeyContent);
  client->newKeyContent = nullptr;
}

// With the old connection stopped: the new files, then the new connection,
// whose result becomes the outcome.
DAXO_Error Install(DAXO_Client* client, int task, const char* content) noexcept {
  if (task == RenewalTaskAuthority) return WriteToCertificateFile(client->caFile, content);
  const char* key = client->newKeyContent;
  if (key == nullptr || !WriteCertificateFile(client, daxo::kKeyFileName, key,
                                              static_cast<int>(strlen(key))))
    return DAXO_Error_WritingToCertificateFile;
  DropRenewal(client);
  if (!WriteCertificateFile(client, daxo::kCertFileName, content,
                            static_cast<int>(strlen(content))))
    return DAXO_Error_WritingToCertificateFile;
  return DAXO_Error_Success;
}

void RestoreApplicationCallbacks(DAXO_Client* client) noexcept {
  // Keyed on the stand-in rather than on the saved value, which is null for
  // an application without OnConnect.
  if (daxo::Get(client->OnConnect) == CertificateRenewOnConnectCallback)
    DAXO_ConnectCallbackSet(client, client->preserveUserDefinedOnConnectCallback);
  client->preserveUserDefinedOnConnectCallback = nullptr;
  if (client->renewalMutedOnDisconnect) {
    DAXO_DisconnectCallbackSet(client, client->preserveUserDefinedOnDisconnectCallback);
    client->preserveUserDefinedOnDisconnectCallback = nullptr;
    client->renewalMutedOnDisconnect = 0;
  }
}

}  // namespace

extern "C" {

const char* GetStringValueForKeyFromJson(json_object* objJson, const char* key) noexcept {
  json_object* member = nullptr;
  if (!json_object_object_get_ex(objJson, key, &member)) return nullptr;
  return json_object_get_string(member);
}

int ParseDatePartsFromString(const char* dateStr, size_t sizeOfPart, size_t from) noexcept {
  char part[8] = {};
  size_t length = strlen(dateStr);
  if (sizeOfPart >= sizeof part || from >= length) return 0;
  memcpy(part, dateStr + from, sizeOfPart < length - from ? sizeOfPart : length - from);
  return static_cast<int>(strtol(part, nullptr, 10));
}

int IsDateExpired(const struct tm* date) noexcept {
  time_t now = time(nullptr);
  struct tm current {};
  localtime_r(&now, &current);
  const int mine[] = {date->tm_year, date->tm_mon, date->tm_mday, date->tm_hour, date->tm_min};
  const int theirs[] = {current.tm_year, current.tm_mon, current.tm_mday, current.tm_hour,
                        current.tm_min};
  for (size_t i = 0; i < sizeof mine / sizeof mine[0]; ++i) {
    if (mine[i] != theirs[i]) return mine[i] < theirs[i];
  }
  return current.tm_sec > date->tm_sec;
}

int WillDateExpireInDays(const char* dateStr, const int days) noexcept {
  if (dateStr == nullptr || strlen(dateStr) < kDateLength) return 0;
  struct tm date {};
  date.tm_year = ParseDatePartsFromString(dateStr, 4, 0) - 1900;
  date.tm_mon = ParseDatePartsFromString(dateStr, 2, 4) - 1;
  date.tm_mday = ParseDatePartsFromString(dateStr, 2, 6) - days;
  date.tm_hour = ParseDatePartsFromString(dateStr, 2, 9);
  date.tm_min = ParseDatePartsFromString(dateStr, 2, 11);
  date.tm_sec = ParseDatePartsFromString(dateStr, 2, 13);
  date.tm_isdst = -1;
  if (mktime(&date) == -1) return 0;
  return IsDateExpired(&date);
}

DAXO_Error WriteToCertificateFile(const char* filePath, const char* content) noexcept {
  daxo::FilePtr file(fopen(filePath, "we"));
  if (!file) return DAXO_Error_WritingToCertificateFile;
  if (fputs(content, file.get()) == EOF) return DAXO_Error_WritingToCertificateFile;
  return fclose(file.release()) == 0 ? DAXO_Error_Success : DAXO_Error_WritingToCertificateFile;
}

DAXO_Error RenewClientCertificate(DAXO_Client* client) noexcept {
  daxo::CStr topic = daxo::Format("/%s/%s/renewCertificate", daxo::kApiVersion, client->clientId);
  if (!topic) return DAXO_Error_NoMemory;
  if (DAXO_Error err = PrepareRenewal(client); err != DAXO_Error_Success) return err;
  DAXO_Error err = SendMessageToAgent(client, topic.get(), client->provisionCert,
                                      client->provisionCertLen, nullptr);
  if (err != DAXO_Error_Success) DropRenewal(client);
  return err;
}

DAXO_Error ProcessCheckExpireDateCommand(DAXO_Client* client, char** topics, const int topicCount,
                                         const char* message, const char* /*topic*/) noexcept {
  DAXO_Error outcome = IsAnswer(topics, topicCount, TopicIndexClientIdCheckExpireDateInbox)
                           ? HandleExpiryAnswer(client, message)
                           : DAXO_Error_WrongReply;
  if (outcome == DAXO_Error_Busy) return DAXO_Error_Success;
  CallOnCertificateRenewCallback(client, outcome);
  return outcome;
}

DAXO_Error ProcessNewCertificateCommand(DAXO_Client* client, char** topics, const int topicCount,
                                        const char* message, const char* /*topic*/) noexcept {
  DAXO_Error err = DAXO_Error_WrongReply;
  if (IsAnswer(topics, topicCount, TopicIndexClientIdRenewCertificateInbox))
    err = Schedule(client, RenewalTaskClientCertificate, message);
  if (err != DAXO_Error_Success) CallOnCertificateRenewCallback(client, err);
  return err;
}

void CertificateRenewOnConnectCallback(DAXO_Client* client, void* /*callbackParameter*/,
                                       DAXO_Error err) noexcept {
  if (client == nullptr) return;
  // Put back first: whoever hears of the outcome finds its callbacks again.
  RestoreApplicationCallbacks(client);
  CallOnCertificateRenewCallback(client, err);
}

}  // extern "C"

namespace {

// With ownerMutex held; *stopped tells whether the connection was stopped.
DAXO_Error Renew(DAXO_Client* client, int task, const char* content, bool* stopped) noexcept {
  *stopped = false;
  if (task == RenewalTaskRequest) return RenewClientCertificate(client);
  // Without a pending key the certificate cannot be used: the connection is
  // left alone.
  if (task == RenewalTaskClientCertificate && client->newKeyContent == nullptr)
    return DAXO_Error_WritingToCertificateFile;
  *stopped = true;
  // The application does not hear of the disconnection a new client
  // certificate needs; its OnDisconnect returns with the new connection.
  if (task == RenewalTaskClientCertificate) {
    client->preserveUserDefinedOnDisconnectCallback = daxo::Get(client->OnDisconnect);
    client->renewalMutedOnDisconnect = 1;
    DAXO_DisconnectCallbackSet(client, nullptr);
  }
  DAXO_Error err = daxo::DisconnectMain(client);
  if (err == DAXO_Error_Success) err = Install(client, task, content);
  if (err == DAXO_Error_Success) {
    client->preserveUserDefinedOnConnectCallback = daxo::Get(client->OnConnect);
    DAXO_ConnectCallbackSet(client, CertificateRenewOnConnectCallback);
    err = daxo::ConnectNow(client, nullptr);
  }
  if (err != DAXO_Error_Success) RestoreApplicationCallbacks(client);
  return err;
}

}  // namespace

namespace daxo {

void RunRenewalTask(DAXO_Client* client, int task, char* content) noexcept {
  CStr owned(content);
  DAXO_Error err;
  bool stopped;
  {
    MutexLock lock(&client->ownerMutex);
    err = Renew(client, task, content, &stopped);
  }
  if (err == DAXO_Error_Success) return;
  CallOnCertificateRenewCallback(client, err);
  // A renewal that stopped the connection and could not make a new one:
  // the application hears why, and the watch thread keeps trying with what
  // the folder holds.
  if (stopped) ReportConnectFailure(client, err);
}

}  // namespace daxo

// Certificate renewal. The agent's answers arrive on the main connection's
// network thread, which cannot stop itself; the reconnection with the new
// files is therefore handed to the client's watch thread.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

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
  // The owner judges a failed trial; a refusal is only recorded for it.
  int trying = RenewalTrialTrying;
  int verdict = err == DAXO_Error_Success ? RenewalTrialAccepted : RenewalTrialRefused;
  if (err != DAXO_Error_Success) daxo::Store(client->renewalTrialError, err);
  if (!__atomic_compare_exchange_n(&client->renewalTrial, &trying, verdict, false, __ATOMIC_ACQ_REL,
                                   __ATOMIC_ACQUIRE))
    return;
  daxo::WakeWatchThread(client);
  if (err != DAXO_Error_Success) return;
  // Put back first: whoever hears of the outcome finds its callbacks again.
  RestoreApplicationCallbacks(client);
  CallOnCertificateRenewCallback(client, err);
}

}  // extern "C"

namespace {

using daxo::CStr;

DAXO_Error Refuse(DAXO_Client* client, const char* what, const char* why) noexcept {
  daxo::LogFormat(client, "Renewal: the new %s is refused (%s); nothing is changed", what, why);
  return DAXO_Error_WrongReply;
}

void KeepOld(DAXO_Client* client, char* authority) noexcept {
  free(std::exchange(client->renewalOldCa, authority));
}

// With ownerMutex held. The files the new connection is to use, checked
// first; the old ones stay on disk beside them until that connection proves
// the new ones. *changed tells whether anything was written.
DAXO_Error InstallClientCertificate(DAXO_Client* client, const char* cert, bool* changed) noexcept {
  size_t length = strlen(cert);
  if (const char* why =
          CheckCertificateForKey(cert, length, client->newKeyContent, client->clientId))
    return Refuse(client, "client certificate", why);
  // The authority that signs clients need not be the one that signs the
  // broker, so this is worth a line, not a refusal.
  if (const char* why = VerifyCertificate(cert, length, client->caFile))
    daxo::LogFormat(client, "Renewal: the new client certificate does not verify against %s (%s)",
                    client->caFile, why);
  // Without the old pair there is nothing to go back to if the new one fails.
  if (!daxo::KeepOldIdentity(client)) {
    daxo::LogFormat(client, "Renewal: the new client certificate is not tried; nothing is changed");
    return DAXO_Error_WritingToCertificateFile;
  }
  if (!daxo::InstallIdentity(client, client->newKeyContent, cert, length)) {
    daxo::PutBackOldIdentity(client);
    return DAXO_Error_WritingToCertificateFile;
  }
  DropRenewal(client);
  *changed = true;
  return DAXO_Error_Success;
}

DAXO_Error InstallAuthority(DAXO_Client* client, const char* pem, bool* changed) noexcept {
  if (strcmp(client->caFile, daxo::kAgentAuthorityFile) == 0) {
    daxo::LogFormat(client,
                    "Renewal: %s is the agent's own authority file; it is left to the agent",
                    client->caFile);
    return DAXO_Error_Success;
  }
  if (const char* why = CheckAuthorityCertificate(pem, strlen(pem)))
    return Refuse(client, "certificate authority", why);
  CStr bundle(AuthorityBundle(pem, client->caFile));
  if (!bundle) return DAXO_Error_NoMemory;
  CStr old(GetFileContent(client->caFile));
  if (!old) {
    daxo::LogFormat(client,
                    "Renewal: %s cannot be read, so the new certificate authority is not "
                    "tried; nothing is changed",
                    client->caFile);
    return DAXO_Error_WritingToCertificateFile;
  }
  if (strcmp(old.get(), bundle.get()) == 0) return DAXO_Error_Success;
  if (daxo::WriteDurably(client, client->caFile, bundle.get(), strlen(bundle.get()), false) != 0)
    return DAXO_Error_WritingToCertificateFile;
  KeepOld(client, old.release());
  *changed = true;
  return DAXO_Error_Success;
}

// With ownerMutex held: the files a failed trial replaced. Success, or
// WritingToCertificateFile when they could not be put back.
DAXO_Error PutBackOldFiles(DAXO_Client* client, int task, DAXO_Error why) noexcept {
  const char* what = task == RenewalTaskAuthority ? "certificate authority" : "client certificate";
  bool done;
  if (task == RenewalTaskAuthority) {
    const char* oldCa = client->renewalOldCa;
    done = oldCa != nullptr &&
           daxo::WriteDurably(client, client->caFile, oldCa, strlen(oldCa), false) == 0;
  } else {
    done = daxo::PutBackOldIdentity(client);
  }
  KeepOld(client, nullptr);
  daxo::LogFormat(client, "Renewal: the new %s did not bring the connection up (%s); %s", what,
                  DAXO_ErrorName(why),
                  done ? "the old one is put back" : "the old one could not be put back");
  return done ? DAXO_Error_Success : DAXO_Error_WritingToCertificateFile;
}

// With ownerMutex held; *stopped tells whether the connection was stopped.
DAXO_Error Renew(DAXO_Client* client, int task, const char* content, bool* stopped) noexcept {
  *stopped = false;
  if (task == RenewalTaskRequest) return RenewClientCertificate(client);
  // Without a pending key the certificate cannot be used: the connection is
  // left alone.
  if (task == RenewalTaskClientCertificate && client->newKeyContent == nullptr)
    return DAXO_Error_WritingToCertificateFile;
  // The old files of a trial still running are all there is to go back to.
  if (daxo::Load(client->renewalTrial) != RenewalTrialNone) {
    daxo::LogFormat(client, "Renewal: another renewal is still being tried; this one is dropped");
    return DAXO_Error_Busy;
  }
  bool changed = false;
  DAXO_Error err = task == RenewalTaskClientCertificate
                       ? InstallClientCertificate(client, content, &changed)
                       : InstallAuthority(client, content, &changed);
  if (err != DAXO_Error_Success || !changed) return err;
  *stopped = true;
  // The application does not hear of the disconnection a new client
  // certificate needs; its OnDisconnect returns with the new connection.
  if (task == RenewalTaskClientCertificate) {
    client->preserveUserDefinedOnDisconnectCallback = daxo::Get(client->OnDisconnect);
    client->renewalMutedOnDisconnect = 1;
    DAXO_DisconnectCallbackSet(client, nullptr);
  }
  err = daxo::DisconnectMain(client);
  if (err == DAXO_Error_Success) {
    client->preserveUserDefinedOnConnectCallback = daxo::Get(client->OnConnect);
    DAXO_ConnectCallbackSet(client, CertificateRenewOnConnectCallback);
    client->renewalTrialTask = task;
    client->renewalTrialDeadlineMs = daxo::NowMs() + DAXO_RENEWAL_TRIAL_MS;
    daxo::Store(client->renewalTrialError, 0);
    daxo::Store(client->renewalTrial, RenewalTrialTrying);
    err = daxo::ConnectNow(client, nullptr);
  }
  if (err != DAXO_Error_Success) {
    daxo::Store(client->renewalTrial, RenewalTrialNone);
    RestoreApplicationCallbacks(client);
    if (PutBackOldFiles(client, task, err) != DAXO_Error_Success)
      err = DAXO_Error_WritingToCertificateFile;
  }
  return err;
}

// With ownerMutex held: why the trial failed, or Success while it may
// still succeed.
DAXO_Error TrialFailure(DAXO_Client* client, int state) noexcept {
  if (state == RenewalTrialRefused)
    return static_cast<DAXO_Error>(daxo::Load(client->renewalTrialError));
  if (!daxo::Load(client->polling)) return DAXO_Error_NoConnectionToServer;
  if (int failure = daxo::Load(client->mainWatch.failure); failure != 0)
    return static_cast<DAXO_Error>(failure);
  if (daxo::NowMs() >= client->renewalTrialDeadlineMs) return DAXO_Error_ConnectionTimeout;
  return DAXO_Error_Success;
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
  // A reconnection reports the outcome; without one, it is known now.
  if (err == DAXO_Error_Success && stopped) return;
  if (err == DAXO_Error_Success && task == RenewalTaskRequest) return;
  CallOnCertificateRenewCallback(client, err);
  // A renewal that stopped the connection and could not make a new one:
  // the application hears why, and the watch thread keeps trying with what
  // the folder holds.
  if (stopped) ReportConnectFailure(client, err);
}

void SuperviseRenewalTrial(DAXO_Client* client) noexcept {
  int state = Load(client->renewalTrial);
  if (state == RenewalTrialNone) return;
  DAXO_Error outcome;
  DAXO_Error reconnect = DAXO_Error_Success;
  {
    MutexLock lock(&client->ownerMutex);
    if (state == RenewalTrialAccepted) {
      if (client->renewalTrialTask == RenewalTaskClientCertificate) DropOldIdentity(client);
      KeepOld(client, nullptr);
      Store(client->renewalTrial, RenewalTrialNone);
      return;
    }
    outcome = TrialFailure(client, state);
    if (outcome == DAXO_Error_Success ||
        !__atomic_compare_exchange_n(&client->renewalTrial, &state, RenewalTrialNone, false,
                                     __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
      return;
    bool wanted = Load(client->polling);
    RestoreApplicationCallbacks(client);
    DisconnectMain(client);
    if (PutBackOldFiles(client, client->renewalTrialTask, outcome) != DAXO_Error_Success)
      outcome = DAXO_Error_WritingToCertificateFile;
    if (wanted) reconnect = ConnectNow(client, nullptr);
  }
  CallOnCertificateRenewCallback(client, outcome);
  if (reconnect != DAXO_Error_Success) ReportConnectFailure(client, reconnect);
}

}  // namespace daxo

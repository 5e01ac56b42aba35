// The certificate watch thread: one per client, it wakes once a day to run
// the certificate checks and ends as soon as the client is deleted.
#include <ctime>

#include "daxo_internal.h"

namespace {

constexpr time_t kCheckPeriodSeconds = 86400;

// Waits until the daily pass is due or, while a connection is looked after,
// for a second; false once the thread is told to stop.
bool Wait(DAXO_Client* client, time_t passDue) noexcept {
  timespec deadline{passDue, 0};
  daxo::MutexLock lock(&client->certCheckThreadMutex);
  // The flags are read under the mutex before waiting, so a stop or a new
  // connection announced before this point is never missed.
  if (client->certCheckThreadStop) return false;
  if (client->renewalTask != RenewalTaskNone) return true;
  if (daxo::NeedsSupervision(client)) {
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 1;
  }
  pthread_cond_timedwait(&client->certCheckThreadCondition, &client->certCheckThreadMutex,
                         &deadline);
  return client->certCheckThreadStop == 0;
}

// Takes the reconnection the renewal asked for, if any.
int TakeRenewalTask(DAXO_Client* client, char** content) noexcept {
  daxo::MutexLock lock(&client->certCheckThreadMutex);
  int task = client->renewalTask;
  *content = client->renewalContent;
  client->renewalTask = RenewalTaskNone;
  client->renewalContent = nullptr;
  return task;
}

}  // namespace

extern "C" void* CertificateCheckingThread(void* param) noexcept {
  auto* client = static_cast<DAXO_Client*>(param);
  if (client == nullptr) return reinterpret_cast<void*>(1);
  time_t passDue = time(nullptr) + kCheckPeriodSeconds;
  while (Wait(client, passDue)) {
    if (time(nullptr) >= passDue) {
      CheckCertificatesExpirationDates(client);
      passDue = time(nullptr) + kCheckPeriodSeconds;
    }
    char* content = nullptr;
    if (int task = TakeRenewalTask(client, &content); task != RenewalTaskNone)
      daxo::RunRenewalTask(client, task, content);
    daxo::SuperviseConnections(client);
  }
  return nullptr;
}

extern "C" int StartCertificateCheckingThread(DAXO_Client* client) noexcept {
  if (client == nullptr || client->certCheckThreadStarted) return 0;
  client->certCheckThreadStop = 0;
  pthread_cond_init(&client->certCheckThreadCondition, nullptr);
  pthread_mutex_init(&client->certCheckThreadMutex, nullptr);
  if (pthread_create(&client->certCheckThread, nullptr, CertificateCheckingThread, client) != 0) {
    pthread_mutex_destroy(&client->certCheckThreadMutex);
    pthread_cond_destroy(&client->certCheckThreadCondition);
    return 0;
  }
  client->certCheckThreadStarted = 1;
  return 1;
}

extern "C" void StopCertificateCheckingThread(DAXO_Client* client) noexcept {
  if (client == nullptr || !client->certCheckThreadStarted) return;
  pthread_mutex_lock(&client->certCheckThreadMutex);
  client->certCheckThreadStop = 1;
  pthread_cond_broadcast(&client->certCheckThreadCondition);
  pthread_mutex_unlock(&client->certCheckThreadMutex);
  pthread_join(client->certCheckThread, nullptr);
  client->certCheckThreadStarted = 0;
  client->certCheckThreadStop = 0;
  pthread_mutex_destroy(&client->certCheckThreadMutex);
  pthread_cond_destroy(&client->certCheckThreadCondition);
}

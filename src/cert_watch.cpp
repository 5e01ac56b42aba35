// The certificate watch thread: one per client, it wakes once a day to run
// the certificate checks and ends as soon as the client is deleted.
#include <ctime>

#include "daxo_internal.h"

namespace {

constexpr time_t kCheckPeriodSeconds = 86400;

// Waits until the next pass is due; false once the thread is told to stop.
bool WaitForNextPass(DAXO_Client* client) noexcept {
  timespec deadline{time(nullptr) + kCheckPeriodSeconds, 0};
  pthread_mutex_lock(&client->certCheckThreadMutex);
  // The stop flag is read under the mutex before waiting, so a stop
  // requested before this point is never missed.
  bool run = client->certCheckThreadStop == 0;
  if (run) {
    pthread_cond_timedwait(&client->certCheckThreadCondition, &client->certCheckThreadMutex,
                           &deadline);
    run = client->certCheckThreadStop == 0;
  }
  pthread_mutex_unlock(&client->certCheckThreadMutex);
  return run;
}

}  // namespace

extern "C" void* CertificateCheckingThread(void* param) noexcept {
  auto* client = static_cast<DAXO_Client*>(param);
  if (client == nullptr) return reinterpret_cast<void*>(1);
  // Any wake-up that is not a stop runs a pass, spurious ones included.
  while (WaitForNextPass(client)) CheckCertificatesExpirationDates(client);
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

// The watch thread: one per client, from its creation to its deletion. It
// owns the client's connections (connection_owner.cpp), supervises them,
// carries out renewals and runs the certificate checks once a day.
#include <ctime>
#include <utility>

#include "daxo_internal.h"

namespace {

constexpr time_t kCheckPeriodSeconds = 86400;

// Waits until the daily pass is due, work is handed over, or, while a
// connection is looked after, for a second; false once told to stop.
bool Wait(DAXO_Client* client, time_t passDue) noexcept {
  timespec deadline{passDue, 0};
  daxo::MutexLock lock(&client->certCheckThreadMutex);
  // Read under the mutex before waiting, so that a stop or work announced
  // before this point is never missed.
  if (client->certCheckThreadStop) return false;
  if (daxo::HasOwnerWork(client) || client->renewalTask != RenewalTaskNone ||
      client->renewalRequested)
    return true;
  if (daxo::NeedsSupervision(client)) {
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 1;
  }
  pthread_cond_timedwait(&client->certCheckThreadCondition, &client->certCheckThreadMutex,
                         &deadline);
  return client->certCheckThreadStop == 0;
}

// Takes the renewal work handed over, if any: a request first, since the
// certificate that answers it comes after.
int TakeRenewalTask(DAXO_Client* client, char** content) noexcept {
  daxo::MutexLock lock(&client->certCheckThreadMutex);
  *content = nullptr;
  if (std::exchange(client->renewalRequested, 0)) return RenewalTaskRequest;
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
  daxo::LibraryThreadScope libraryThread;
  time_t passDue = time(nullptr) + kCheckPeriodSeconds;
  while (Wait(client, passDue)) {
    daxo::RunOwnerTasks(client);
    if (time(nullptr) >= passDue) {
      if (!daxo::Load(client->dailyChecksOff)) CheckCertificatesExpirationDates(client);
      passDue = time(nullptr) + kCheckPeriodSeconds;
    }
    // A trial that has ended is settled before new renewal work is taken.
    daxo::SuperviseRenewalTrial(client);
    char* content = nullptr;
    while (int task = TakeRenewalTask(client, &content)) daxo::RunRenewalTask(client, task, content);
    daxo::SuperviseConnections(client);
    daxo::SuperviseStore(client);
    __atomic_add_fetch(&client->ownerPasses, 1, __ATOMIC_RELEASE);
  }
  return nullptr;
}

extern "C" int StartCertificateCheckingThread(DAXO_Client* client) noexcept {
  if (client == nullptr || client->certCheckThreadStarted) return 0;
  // The mutex and condition live as long as the client: network threads may
  // hand work over until the client's connections are released.
  client->certCheckThreadStop = 0;
  if (pthread_create(&client->certCheckThread, nullptr, CertificateCheckingThread, client) != 0)
    return 0;
  daxo::Store(client->certCheckThreadStarted, 1);
  return 1;
}

// Only the thread that owns the watch thread (the one deleting the client)
// may stop it; the caller then owns the connections.
extern "C" void StopCertificateCheckingThread(DAXO_Client* client) noexcept {
  if (client == nullptr || !client->certCheckThreadStarted || daxo::OnLibraryThread()) return;
  pthread_mutex_lock(&client->certCheckThreadMutex);
  client->certCheckThreadStop = 1;
  pthread_cond_broadcast(&client->certCheckThreadCondition);
  pthread_mutex_unlock(&client->certCheckThreadMutex);
  pthread_join(client->certCheckThread, nullptr);
  daxo::Store(client->certCheckThreadStarted, 0);
  client->certCheckThreadStop = 0;
}

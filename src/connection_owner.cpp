// Who changes a client's connections. The watch thread owns them; an
// application thread borrows that ownership (ownerMutex) for the length of a
// synchronous DAXO_Connect, DAXO_Disconnect or DAXO_ProvisionClient. A
// network thread never takes it: what it asks for (an application callback
// calling DAXO_Connect, say) is handed to the watch thread, and the call
// returns. So whoever joins a network thread with ownerMutex held joins a
// thread that cannot be waiting for it.
#include <cstdlib>
#include <utility>

#include "daxo_internal.h"

namespace {

thread_local int libraryThreadDepth = 0;

DAXO_Error Execute(DAXO_Client* client, OwnerCommand command,
                   MosquittoInterface* record) noexcept {
  switch (command) {
    case OwnerConnect:
      return daxo::ConnectNow(client, record);
    case OwnerDisconnect:
      daxo::Store(client->wantMain, 0);
      return daxo::DisconnectMain(client);
    case OwnerProvision:
      return ProvisionClient(client, record);
  }
  return DAXO_Error_Unknown;
}

// A failure nobody waited for reaches the callback that reports its kind,
// without any lock held.
void Report(DAXO_Client* client, OwnerCommand command, DAXO_Error err) noexcept {
  if (err == DAXO_Error_Success) return;
  switch (command) {
    case OwnerConnect:
      daxo::ReportConnectFailure(client, err);
      break;
    case OwnerDisconnect:
      if (DAXO_OnDisconnect onDisconnect = daxo::Get(client->OnDisconnect))
        onDisconnect(client, client->callbackParameter, err);
      break;
    case OwnerProvision:
      if (client->OnProvision != nullptr)
        client->OnProvision(client, client->callbackParameter, err);
      break;
  }
}

OwnerTask* TakeTasks(DAXO_Client* client) noexcept {
  daxo::MutexLock lock(&client->certCheckThreadMutex);
  return std::exchange(client->ownerTasks, nullptr);
}

}  // namespace

namespace daxo {

LibraryThreadScope::LibraryThreadScope() noexcept { ++libraryThreadDepth; }
LibraryThreadScope::~LibraryThreadScope() { --libraryThreadDepth; }
bool OnLibraryThread() noexcept { return libraryThreadDepth > 0; }

DAXO_Error RunOnOwner(DAXO_Client* client, OwnerCommand command,
                      MosquittoInterface* record) noexcept {
  // Queued even when the watch thread has ended (the client is being
  // deleted): the deletion frees what is left.
  if (OnLibraryThread()) {
    auto* task = static_cast<OwnerTask*>(calloc(1, sizeof(OwnerTask)));
    if (task == nullptr) return DAXO_Error_NoMemory;
    *task = {command, record, nullptr};
    MutexLock lock(&client->certCheckThreadMutex);
    OwnerTask** last = &client->ownerTasks;
    while (*last != nullptr) last = &(*last)->next;
    *last = task;
    pthread_cond_broadcast(&client->certCheckThreadCondition);
    return DAXO_Error_Success;
  }
  DAXO_Error err;
  {
    MutexLock lock(&client->ownerMutex);
    err = Execute(client, command, record);
  }
  WakeWatchThread(client);  // a new connection to look after
  return err;
}

bool HasOwnerWork(const DAXO_Client* client) noexcept { return client->ownerTasks != nullptr; }

void RunOwnerTasks(DAXO_Client* client) noexcept {
  for (OwnerTask* task = TakeTasks(client); task != nullptr;) {
    DAXO_Error err;
    {
      MutexLock lock(&client->ownerMutex);
      err = Execute(client, task->command, task->record);
    }
    Report(client, task->command, err);
    free(std::exchange(task, task->next));
  }
}

void FreeOwnerTasks(DAXO_Client* client) noexcept {
  for (OwnerTask* task = std::exchange(client->ownerTasks, nullptr); task != nullptr;)
    free(std::exchange(task, task->next));
}

}  // namespace daxo

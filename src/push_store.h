// The push store's layout, shared by its logic (push_store.cpp) and its
// database (push_store_db.cpp).
#ifndef DAXO_PUSH_STORE_H
#define DAXO_PUSH_STORE_H

#include <pthread.h>
#include <sqlite3.h>

#include <cstddef>
#include <memory>

#include "c_handles.h"
#include "daxo_internal.h"

// One push waiting for its answer, in one allocation with its texts.
struct KeptPush {
  KeptPush* next;
  sqlite3_int64 row;   // its row in the database; 0 in a memory store
  long long sentMs;    // when it was handed to the connection; 0: not on this connection
  size_t bytes;        // counted against the bound; 0 once dropped
  bool dropped;        // dropped while its answer was awaited: the answer is still matched
  bool answered;       // an answer came for it; it counts once the fence after it is answered
  bool unproven;       // a push of its sensor in its batch has no answer: the batch goes again
  DAXO_ApiError code;  // the agent's answer
  char* sensorId;
  char* topic;
  char* payload;
  int length;
};

struct PushStoreTag {
  pthread_mutex_t mutex;     // guards everything below
  KeptPush* head = nullptr;  // oldest first
  KeptPush* tail = nullptr;
  // Those sent are the ones before unsent: one batch, followed by a fence
  // (a connection check), whose answer proves which of the batch arrived.
  KeptPush* unsent = nullptr;  // first one not handed to this connection; those after it neither
  size_t count = 0;            // kept and not dropped
  size_t bytes = 0;
  size_t maxBytes = 0;
  int policy = PushStoreDropOldest;
  int inFlight = 0;     // the batch: handed to this connection, the fence not answered
  bool online = false;  // the client's topics are subscribed on a connection
  bool ready = false;   // the agent answered a connection check on it: pushes may go
  // Connection checks awaiting their answer, in the order they were sent:
  // the application's before the library's one, the library's, and the
  // application's after it. The answers name no owner.
  int appChecksBefore = 0;
  bool fenceOut = false;
  int appChecksAfter = 0;
  long long checkSentMs = 0;
  // A persistent store; members in this order so that the statements are
  // finalised before the database closes.
  daxo::SqlitePtr db;  // null: a memory store
  daxo::SqliteStmtPtr insert, remove;
};

namespace daxo {

// The database side; each is called with the store's mutex held, or
// before the store is shared. Failures are logged by the caller.
struct DbOpen {
  DAXO_Error err;
  bool movedAside;  // a corrupt file was renamed and a fresh one started
  char why[256];
};
DbOpen OpenDatabase(const DAXO_Client* client, PushStoreTag* store) noexcept;
// Loads the rows into the store's list, oldest first.
DAXO_Error LoadRows(PushStoreTag* store) noexcept;
// Writes a push, setting its row; the transaction is committed on return.
DAXO_Error InsertRow(PushStoreTag* store, KeptPush* push) noexcept;
// A row that cannot be deleted once its push is answered is sent again
// after a restart: a duplicate, never a loss.
DAXO_Error DeleteRow(PushStoreTag* store, const KeptPush* push) noexcept;
// BEGIN IMMEDIATE, and COMMIT (or ROLLBACK); Success in a memory store.
DAXO_Error BeginWrite(PushStoreTag* store) noexcept;
DAXO_Error EndWrite(PushStoreTag* store, bool commit) noexcept;

// A push of that size in one block; null when memory runs out.
KeptPush* NewKeptPush(const char* sensorId, size_t sensorLength, const char* topic,
                      size_t topicLength, const char* payload, int length) noexcept;
void AppendKept(PushStoreTag* store, KeptPush* push) noexcept;

}  // namespace daxo

#endif

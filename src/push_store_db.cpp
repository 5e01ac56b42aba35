// The persistent push store: one SQLite database in WAL mode, a row a push,
// written before DAXO_PushMetricValues returns and deleted with its answer.
// synchronous=NORMAL loses nothing when the process dies and never
// corrupts the file; FULL also survives a power cut, at an fsync a push.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "push_store.h"
#include "string_utils.h"

namespace {

using daxo::DbOpen;
using daxo::SqlitePtr;
using daxo::SqliteStmtPtr;

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS pushes(id INTEGER PRIMARY KEY, sensor TEXT NOT NULL,"
    " topic TEXT NOT NULL, payload BLOB NOT NULL)";

DAXO_Error Written(int rc) noexcept {
  if (rc == SQLITE_OK) return DAXO_Error_Success;
  return (rc & 0xff) == SQLITE_NOMEM ? DAXO_Error_NoMemory : DAXO_Error_PushStoreUnusable;
}

bool Corrupt(int rc) noexcept {
  rc &= 0xff;
  return rc == SQLITE_CORRUPT || rc == SQLITE_NOTADB;
}

DbOpen Failed(sqlite3* db, int rc, const char* doing) noexcept {
  DbOpen r{Corrupt(rc) ? DAXO_Error_Success : DAXO_Error_PushStoreUnusable, false, {}};
  if ((rc & 0xff) == SQLITE_BUSY || (rc & 0xff) == SQLITE_LOCKED) {
    snprintf(r.why, sizeof r.why, "%s: in use by another process (or client)", doing);
    return r;
  }
  int e = errno;
  snprintf(r.why, sizeof r.why, "%s: %s (errno %d, %s)", doing,
           db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc), e, strerror(e));
  if (rc == SQLITE_NOMEM) r.err = DAXO_Error_NoMemory;
  return r;
}

// Opens, checks and prepares the file. Success with an empty why: a usable
// store; Success with a reason: a corrupt file.
DbOpen Prepare(const DAXO_Client* client, PushStoreTag* store) noexcept {
  sqlite3* raw = nullptr;
  errno = 0;
  int rc =
      sqlite3_open_v2(client->pushStorePath, &raw,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  SqlitePtr db(raw);
  if (rc != SQLITE_OK) return Failed(raw, rc, "open");
  // Held for as long as the file is open: a second process (or client)
  // on the same file would send the same rows. The lock is taken by the
  // first statement that reads.
  if ((rc = sqlite3_exec(db.get(), "PRAGMA locking_mode=EXCLUSIVE", nullptr, nullptr, nullptr)) !=
      SQLITE_OK)
    return Failed(db.get(), rc, "lock");
  sqlite3_stmt* mode = nullptr;
  rc = sqlite3_prepare_v2(db.get(), "PRAGMA journal_mode=WAL", -1, &mode, nullptr);
  SqliteStmtPtr ownedMode(mode);
  if (rc == SQLITE_OK && (rc = sqlite3_step(mode)) == SQLITE_ROW) rc = SQLITE_OK;
  if (rc != SQLITE_OK) return Failed(db.get(), rc, "set up");
  const auto* journal = reinterpret_cast<const char*>(sqlite3_column_text(mode, 0));
  if (journal == nullptr || strcmp(journal, "wal") != 0) {
    // synchronous=NORMAL is safe against power cuts only in WAL mode.
    DbOpen r{DAXO_Error_PushStoreUnusable, false, {}};
    snprintf(r.why, sizeof r.why, "the file system does not allow WAL mode (journal mode %s)",
             journal != nullptr ? journal : "unknown");
    return r;
  }
  ownedMode.reset();
  char sql[512];
  snprintf(sql, sizeof sql, "PRAGMA synchronous=%s; PRAGMA user_version=1; %s",
           client->pushStoreSync == PushStoreSyncFull ? "FULL" : "NORMAL", kSchema);
  // A write in the first statements: a folder or file the process cannot
  // write fails here rather than at the first push.
  if ((rc = sqlite3_exec(db.get(), sql, nullptr, nullptr, nullptr)) != SQLITE_OK)
    return Failed(db.get(), rc, "set up");
  sqlite3_stmt* check = nullptr;
  rc = sqlite3_prepare_v2(db.get(), "PRAGMA quick_check", -1, &check, nullptr);
  SqliteStmtPtr ownedCheck(check);
  if (rc != SQLITE_OK) return Failed(db.get(), rc, "check");
  if ((rc = sqlite3_step(check)) != SQLITE_ROW) return Failed(db.get(), rc, "check");
  const auto* verdict = reinterpret_cast<const char*>(sqlite3_column_text(check, 0));
  if (verdict == nullptr || strcmp(verdict, "ok") != 0)
    return Failed(db.get(), SQLITE_CORRUPT, "check");
  sqlite3_stmt* insert = nullptr;
  sqlite3_stmt* remove = nullptr;
  rc = sqlite3_prepare_v2(db.get(), "INSERT INTO pushes(sensor, topic, payload) VALUES(?,?,?)", -1,
                          &insert, nullptr);
  SqliteStmtPtr ownedInsert(insert);
  if (rc == SQLITE_OK)
    rc = sqlite3_prepare_v2(db.get(), "DELETE FROM pushes WHERE id = ?", -1, &remove, nullptr);
  SqliteStmtPtr ownedRemove(remove);
  if (rc != SQLITE_OK) return Failed(db.get(), rc, "prepare");
  store->insert = std::move(ownedInsert);
  store->remove = std::move(ownedRemove);
  store->db = std::move(db);
  return DbOpen{DAXO_Error_Success, false, {}};
}

// NAME.corrupt-YYYYmmddTHHMMSS, with its journal files removed.
bool MoveAside(const char* path, char* why, size_t size) noexcept {
  char stamp[32];
  time_t now = time(nullptr);
  tm utc{};
  strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", gmtime_r(&now, &utc));
  daxo::CStr aside = daxo::Format("%s.corrupt-%s", path, stamp);
  daxo::CStr wal = daxo::Format("%s-wal", path), shm = daxo::Format("%s-shm", path);
  if (!aside || !wal || !shm || rename(path, aside.get()) != 0) return false;
  unlink(wal.get());
  unlink(shm.get());
  snprintf(why, size, "the file was corrupt; moved to %s and a new store started", aside.get());
  return true;
}

}  // namespace

namespace daxo {

DbOpen OpenDatabase(const DAXO_Client* client, PushStoreTag* store) noexcept {
  DbOpen r = Prepare(client, store);
  if (r.err != DAXO_Error_Success || r.why[0] == '\0') return r;
  // Corrupt: kept for whoever wants to look at it, and started afresh.
  DbOpen moved{DAXO_Error_PushStoreUnusable, false, {}};
  if (!MoveAside(client->pushStorePath, moved.why, sizeof moved.why)) {
    snprintf(moved.why, sizeof moved.why, "corrupt (%.160s), and it cannot be moved aside: %s",
             r.why, strerror(errno));
    return moved;
  }
  DbOpen fresh = Prepare(client, store);
  if (fresh.err != DAXO_Error_Success || fresh.why[0] != '\0') {
    if (fresh.err == DAXO_Error_Success) fresh.err = DAXO_Error_PushStoreUnusable;
    return fresh;
  }
  moved.err = DAXO_Error_Success;
  moved.movedAside = true;
  return moved;
}

DAXO_Error LoadRows(PushStoreTag* store) noexcept {
  sqlite3_stmt* raw = nullptr;
  int rc = sqlite3_prepare_v2(store->db.get(),
                              "SELECT id, sensor, topic, payload FROM pushes ORDER BY id", -1, &raw,
                              nullptr);
  SqliteStmtPtr rows(raw);
  if (rc != SQLITE_OK) return DAXO_Error_PushStoreUnusable;
  while ((rc = sqlite3_step(raw)) == SQLITE_ROW) {
    const auto* sensor = reinterpret_cast<const char*>(sqlite3_column_text(raw, 1));
    const auto* topic = reinterpret_cast<const char*>(sqlite3_column_text(raw, 2));
    const auto* payload = static_cast<const char*>(sqlite3_column_blob(raw, 3));
    int length = sqlite3_column_bytes(raw, 3);
    if (sensor == nullptr || topic == nullptr || (payload == nullptr && length != 0))
      return DAXO_Error_NoMemory;
    KeptPush* push = NewKeptPush(sensor, strlen(sensor), topic, strlen(topic),
                                 payload != nullptr ? payload : "", length);
    if (push == nullptr) return DAXO_Error_NoMemory;
    push->row = sqlite3_column_int64(raw, 0);
    AppendKept(store, push);
  }
  return rc == SQLITE_DONE ? DAXO_Error_Success : DAXO_Error_PushStoreUnusable;
}

DAXO_Error InsertRow(PushStoreTag* store, KeptPush* push) noexcept {
  if (!store->db) return DAXO_Error_Success;
  sqlite3_stmt* insert = store->insert.get();
  sqlite3_bind_text(insert, 1, push->sensorId, -1, SQLITE_STATIC);
  sqlite3_bind_text(insert, 2, push->topic, -1, SQLITE_STATIC);
  sqlite3_bind_blob(insert, 3, push->payload, push->length, SQLITE_STATIC);
  int rc = sqlite3_step(insert);
  sqlite3_reset(insert);
  sqlite3_clear_bindings(insert);
  if (rc != SQLITE_DONE) return Written(rc);
  push->row = sqlite3_last_insert_rowid(store->db.get());
  return DAXO_Error_Success;
}

DAXO_Error DeleteRow(PushStoreTag* store, const KeptPush* push) noexcept {
  if (!store->db || push->row == 0) return DAXO_Error_Success;
  sqlite3_stmt* remove = store->remove.get();
  sqlite3_bind_int64(remove, 1, push->row);
  int rc = sqlite3_step(remove);
  sqlite3_reset(remove);
  return Written(rc == SQLITE_DONE ? SQLITE_OK : rc);
}

DAXO_Error BeginWrite(PushStoreTag* store) noexcept {
  if (!store->db) return DAXO_Error_Success;
  return Written(sqlite3_exec(store->db.get(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr));
}

DAXO_Error EndWrite(PushStoreTag* store, bool commit) noexcept {
  if (!store->db) return DAXO_Error_Success;
  int rc = commit ? sqlite3_exec(store->db.get(), "COMMIT", nullptr, nullptr, nullptr) : SQLITE_OK;
  // Without a transaction open (BEGIN failed) this does nothing.
  if (!commit || rc != SQLITE_OK)
    sqlite3_exec(store->db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
  return commit ? Written(rc) : DAXO_Error_Success;
}

}  // namespace daxo

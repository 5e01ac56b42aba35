// The client's layout and the library's internal entry points. Functions
// declared here keep C linkage and their names in the shared object so that
// tests can reach them, but only the DAXO_ functions are the public interface.
#ifndef DAXO_INTERNAL_H
#define DAXO_INTERNAL_H

#include <pthread.h>
#include <stddef.h>
#include <time.h>

#include "daxo_client.h"
#include "mosquitto_interface.h"

#ifdef __cplusplus
extern "C" {
#endif

struct json_object;

// Internal hooks, shaped like DAXO_OnConnect.
typedef void (*OnProvisionCallback)(DAXO_Client* client, void* callbackParameter, DAXO_Error err);
typedef void (*OnCertificateRenewCallback)(DAXO_Client* client, void* callbackParameter,
                                           DAXO_Error err);

// How far an MQTT instance's connection has come; written by its network
// thread and the owner, read by the owner to restart attempts that
// libmosquitto abandons without a callback.
typedef struct ConnectionWatchTag {
  int connected;      // a CONNACK was accepted since the last attempt or loss
  int lossReported;   // the application has been told of this outage
  long long sinceMs;  // monotonic time of the last attempt or loss
  long long graceMs;  // how long the current attempt may take before a restart
  long long retryAtMs;  // a refused attempt's loop is stopped until then; 0: none
  long long downSinceMs;  // when the connection went, or was first tried; 0: up
  // Its network thread runs, so a publish is queued for it; without one,
  // libmosquitto would write on a socket still being set up. Guarded by
  // instanceMutex.
  int sendable;
  // Why attempts fail (connection_failures.cpp).
  int failure;     // the reason of this outage's last failed attempt; 0: none yet
  int named;       // the reason last logged in this outage
  int tlsFailure;  // the TLS failure libmosquitto named in this attempt; 0: none
} ConnectionWatch;

// A change to a client's connections asked for on a library thread, which
// must not wait for it: the watch thread carries it out, reports a failure
// through the callback of its kind and frees the task.
typedef enum OwnerCommandTag { OwnerConnect, OwnerDisconnect, OwnerProvision } OwnerCommand;

typedef struct OwnerTaskTag {
  OwnerCommand command;
  MosquittoInterface* record;  // handed to the factory by Connect and Provision
  struct OwnerTaskTag* next;
} OwnerTask;

struct DAXO_ClientTag {
  MosquittoInterface* mosq;           // main instance, made by DAXO_Connect
  MosquittoInterface* mosqProvision;  // provisioning instance
  char* clientId;                     // common name of the client certificate
  char* mqttHost;
  int mqttPort;
  int mqttProvisionPort;
  int mqttKeepAlive;
  char* caFile;
  char* certFolder;
  char* clientName;
  char* provisionDigest;  // hex SHA-256 of the pending request
  char* provisionCert;    // PEM of the pending request
  char* newKeyContent;    // PEM key of a pending renewal; wiped before release
  int provisionCertLen;
  int polling;               // main network thread running
  int provisionLoopStarted;  // provisioning network thread running
  void* callbackParameter;
  int messageId;  // mid of the pending deprovisioning request, 0 when none

  DAXO_OnLog OnLog;
  DAXO_OnConnect OnConnect;
  DAXO_OnDisconnect OnDisconnect;
  DAXO_OnCreateSensor OnCreateSensor;
  DAXO_OnCreateMetrics OnCreateMetrics;
  DAXO_OnUpdateMetrics OnUpdateMetrics;
  DAXO_OnDeprovisionClient OnDeprovisionClient;
  DAXO_OnListSensors OnListSensors;
  DAXO_OnDescribeMetric OnDescribeMetric;
  DAXO_OnProvisionClient OnProvisionClient;
  DAXO_OnModifySensor OnModifySensor;
  DAXO_OnDeleteSensor OnDeleteSensor;
  DAXO_OnPushMetricValues OnPushMetricValues;
  DAXO_OnDeleteMetrics OnDeleteMetrics;
  DAXO_OnCheckConnection OnCheckConnection;
  DAXO_OnCreateSensorJob OnCreateSensorJob;
  DAXO_OnDeleteSensorJob OnDeleteSensorJob;

  OnProvisionCallback OnProvision;

  pthread_t certCheckThread;
  pthread_cond_t certCheckThreadCondition;
  pthread_mutex_t certCheckThreadMutex;  // guards certCheckThreadStop
  int certCheckThreadStarted;
  int certCheckThreadStop;

  OnCertificateRenewCallback OnCertificateRenew;
  DAXO_OnConnect preserveUserDefinedOnConnectCallback;

  CreateMosquittoClientFunction createMosquittoClientFunction;
  DestroyMosquittoClientFunction destroyMosquittoClientFunction;

  // Held by whoever changes the client's connections: the watch thread while
  // it works, or an application thread inside DAXO_Connect, DAXO_Disconnect
  // or DAXO_ProvisionClient. Never taken on a network thread, so the joins
  // of network threads made with it held cannot wait for its holder.
  pthread_mutex_t ownerMutex;
  // The instance pointers mosq and mosqProvision are replaced with
  // instanceMutex held too; any thread that does not hold ownerMutex holds
  // instanceMutex while it uses an instance, so that none is released under
  // it. Never held across a join or an application callback.
  pthread_mutex_t instanceMutex;
  ConnectionWatch mainWatch;
  ConnectionWatch provisionWatch;
  int wantMain;  // the main connection must be started again (written with ownerMutex)

  // Work handed to the watch thread, guarded by certCheckThreadMutex: tasks
  // from library threads, and a reconnection with new certificate files or
  // a renewal request asked for by a network thread.
  OwnerTask* ownerTasks;
  int renewalTask;       // RenewalTask
  int renewalRequested;  // an expiring certificate: make a key and ask for a new one
  int ownerPasses;       // passes the watch thread has completed (work handed over before is done)
  char* renewalContent;  // the new certificate or authority, PEM
  DAXO_OnDisconnect preserveUserDefinedOnDisconnectCallback;
  int renewalMutedOnDisconnect;  // OnDisconnect is held back for a renewal
  int dailyChecksOff;  // a deprovisioned client has nothing to check

  // A renewal trying its new files on a new connection (renewal.cpp),
  // owned by the holder of ownerMutex; the stand-in OnConnect only moves
  // renewalTrial from trying to accepted or refused, once.
  int renewalTrial;  // RenewalTrial
  int renewalTrialTask;
  int renewalTrialError;  // the refusal the stand-in heard
  long long renewalTrialDeadlineMs;
  char* renewalOldCa;  // the authority a trial replaced, put back if it fails

  // A provisioning exchange that has no answer by then reports a failure.
  long long provisionDeadlineMs;  // 0: no exchange pending
  long long provisionTimeoutMs;

  // Pushes kept until the agent answers them (push_store.cpp).
  char* pushStorePath;             // "memory" or the database's path; null: pushes are not kept
  int pushStoreMaxBytes;           // bound of what is kept
  int pushStorePolicy;             // PushStorePolicy: what a push meets when the store is full
  int pushStoreSync;               // PushStoreSync
  struct PushStoreTag* pushStore;  // made by DAXO_Connect; freed with the client
  DAXO_OnPushDropped OnPushDropped;
};

enum PushStorePolicy { PushStoreDropOldest = 0, PushStoreRefuse };
enum PushStoreSync { PushStoreSyncNormal = 0, PushStoreSyncFull };

enum RenewalTrial {
  RenewalTrialNone = 0,
  RenewalTrialTrying,
  RenewalTrialAccepted,
  RenewalTrialRefused
};

// How long a renewal's new connection may take to come up before the old
// files are put back.
#define DAXO_RENEWAL_TRIAL_MS 30000

enum RenewalTask {
  RenewalTaskNone = 0,
  RenewalTaskClientCertificate,
  RenewalTaskAuthority,
  RenewalTaskRequest  // only handed over: kept in renewalRequested
};

struct DAXO_MetricSchemaContainerTag {
  struct json_object* mainJson;      // the whole request body
  struct json_object* metricsArray;  // its "metrics" member, owned by mainJson
};

// One collected value; type says which member of the union holds it.
typedef struct MetricValueTag {
  char* metricId;
  DAXO_ValueType type;
  union {
    char* stringValue;
    int64_t intValue;
    double doubleValue;
    int boolValue;
  };
} MetricValue;

struct DAXO_MetricValueContainerTag {
  MetricValue* metrics;
  int metricsCount;
  uint64_t timestamp;
  int customTimestampIsSet;
};

// Level positions of the topic tree; several paths share a position.
enum TopicIndexTag {
  TopicIndexApiVersion = 1,
  TopicIndexCertBack = 1,
  TopicIndexClientId = 2,
  TopicIndexProvisionDigest = 2,
  TopicIndexClientIdRenewCertificate = 3,
  TopicIndexClientIdCheckExpireDate = 3,
  TopicIndexClientIdPing = 3,
  TopicIndexClientIdInventory = 3,
  TopicIndexClientIdSensor = 3,
  TopicIndexCertBackError = 3,
  TopicIndexClientIdRenewCertificateInbox = 4,
  TopicIndexClientIdCheckExpireDateInbox = 4,
  TopicIndexClientIdPingError = 4,
  TopicIndexClientIdPingInfo = 4,
  TopicIndexClientIdInventoryInbox = 4,
  TopicIndexClientIdInventoryError = 4,
  TopicIndexSensorJob = 4,
  TopicIndexSensorInbox = 4,
  TopicIndexSensorError = 4,
  TopicIndexSensorId = 4,
  TopicIndexClientIdPingErrorInbox = 5,
  TopicIndexClientIdPingInfoInbox = 5,
  TopicIndexClientIdInventoryErrorInbox = 5,
  TopicIndexSensorJobCreate = 5,
  TopicIndexSensorErrorInbox = 5,
  TopicIndexSensorIdJob = 5,
  TopicIndexSensorIdUpdate = 5,
  TopicIndexSensorIdDelete = 5,
  TopicIndexSensorIdError = 5,
  TopicIndexSensorIdInfo = 5,
  TopicIndexSensorIdMetric = 5,
  TopicIndexSensorIdJobDelete = 6,
  TopicIndexSensorIdUpdateInfo = 6,
  TopicIndexSensorIdUpdateError = 6,
  TopicIndexSensorIdDeleteInfo = 6,
  TopicIndexSensorIdDeleteError = 6,
  TopicIndexSensorIdErrorInbox = 6,
  TopicIndexSensorIdInfoInbox = 6,
  TopicIndexMetricInbox = 6,
  TopicIndexMetricError = 6,
  TopicIndexMetricDelete = 6,
  TopicIndexMetricUpdate = 6,
  TopicIndexMetricId = 6,
  TopicIndexSensorIdUpdateInfoInbox = 7,
  TopicIndexSensorIdUpdateErrorInbox = 7,
  TopicIndexSensorIdDeleteInfoInbox = 7,
  TopicIndexSensorIdDeleteErrorInbox = 7,
  TopicIndexMetricErrorInbox = 7,
  TopicIndexMetricDeleteInfo = 7,
  TopicIndexMetricDeleteError = 7,
  TopicIndexMetricUpdateInfo = 7,
  TopicIndexMetricUpdateError = 7,
  TopicIndexMetricIdInventory = 7,
  TopicIndexMetricDeleteInfoInbox = 8,
  TopicIndexMetricDeleteErrorInbox = 8,
  TopicIndexMetricUpdateInfoInbox = 8,
  TopicIndexMetricUpdateErrorInbox = 8,
  TopicIndexMetricIdInventoryInbox = 8,
  TopicIndexMetricIdInventoryError = 8,
  TopicIndexMetricIdInventoryErrorInbox = 9
};

// Client lifecycle.
DAXO_EXPORT DAXO_Client* NewClientInternal(
    const char* confFile, void* callbackParameter, DAXO_Error* err,
    CreateMosquittoClientFunction createMosquittoClientFunction,
    DestroyMosquittoClientFunction destroyMosquittoClientFunction) DAXO_NOEXCEPT;

// Connection and sending.
DAXO_EXPORT DAXO_Error ConnectInternal(DAXO_Client* client,
                                       MosquittoInterface* mosquitto) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error SendMessageToAgent(DAXO_Client* client, const char* topic,
                                          const char* message, int message_len,
                                          int* messageId) DAXO_NOEXCEPT;

// Inbound dispatch.
DAXO_EXPORT void MessageCallback(struct mosquitto* mosq, void* obj,
                                 const struct mosquitto_message* message) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DispatchResponse(DAXO_Client* client, const char* topic,
                                        const char* message) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error ProcessClientCommands(DAXO_Client* client, char** topics,
                                             const int topicCount, const char* message,
                                             const char* topic) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error ProcessSensorCommands(DAXO_Client* client, char** topics,
                                             const int topicCount, const char* message,
                                             const char* topic) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error ProcessMetricCommands(DAXO_Client* client, const char* sensorId,
                                             char** topics, const int topicCount,
                                             const char* message,
                                             const char* topic) DAXO_NOEXCEPT;

// Reply records and their parsers: each parser returns a complete record,
// or fails with nothing left allocated.
DAXO_EXPORT int CreateSensorMetadata(struct json_object* objSensor,
                                     DAXO_SensorMetadata* sensorMetadata) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_SensorMetadata* CreateSensorMetadataEx(const char* message) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_SensorsInfo* CreateSensorsInfo(const char* message) DAXO_NOEXCEPT;
DAXO_EXPORT int ParseSensorId(const char* message, char** name, char** sensorId) DAXO_NOEXCEPT;
DAXO_EXPORT int InitializePluginParameter(DAXO_PluginParameter* pluginParameter,
                                          const char* name, const char* value) DAXO_NOEXCEPT;
DAXO_EXPORT int CreateMetricInfo(struct json_object* objMetric,
                                 DAXO_MetricInfo* metric) DAXO_NOEXCEPT;
DAXO_EXPORT void DestroySensorMetadata(DAXO_SensorMetadata* sensor) DAXO_NOEXCEPT;
DAXO_EXPORT void DestroyPluginParameter(DAXO_PluginParameter* pluginParameter) DAXO_NOEXCEPT;
DAXO_EXPORT void DestroyMetricInfo(DAXO_MetricInfo* metric) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_CreatedMetrics* CreateCreatedMetrics(const char* message,
                                                      const char* sensorId) DAXO_NOEXCEPT;
DAXO_EXPORT int FillCreatedMetric(struct json_object* objMetric,
                                  DAXO_CreatedMetric* metric) DAXO_NOEXCEPT;
DAXO_EXPORT void DestroyCreatedMetric(DAXO_CreatedMetric* metric) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_MetricMetadata* CreateMetricMetadata(const char* message) DAXO_NOEXCEPT;

// Value units and types and their wire texts; row i of each table holds
// number i, and a row with null text ends it.
typedef struct ValueUnitPairTag {
  const char* strType;
  DAXO_ValueUnit numericUnit;
} ValueUnitPair;
typedef struct ValueTypePairTag {
  const char* strType;
  DAXO_ValueType numericType;
} ValueTypePair;
DAXO_EXPORT extern const ValueUnitPair valueUnits[24];
DAXO_EXPORT extern const ValueTypePair valueTypes[6];
DAXO_EXPORT DAXO_ValueUnit GetValueUnitFromStr(const char* valueUnit) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_ValueType GetValueTypeFromStr(const char* valueType) DAXO_NOEXCEPT;
// Null for a number outside its enumeration.
DAXO_EXPORT const char* GetValueUnitStr(DAXO_ValueUnit valueUnit) DAXO_NOEXCEPT;
DAXO_EXPORT const char* GetValueTypeStr(DAXO_ValueType valueType) DAXO_NOEXCEPT;

// Configuration.
DAXO_EXPORT DAXO_Error LoadConfig(DAXO_Client* client, const char* confFile) DAXO_NOEXCEPT;
DAXO_EXPORT char* GetFileContent(const char* fileName) DAXO_NOEXCEPT;

// Result codes and agent error replies.
DAXO_EXPORT DAXO_ApiError GetApiErrorCode(int err) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error ConvertApiError(int err) DAXO_NOEXCEPT;
// A broker's CONNACK refusal code as the connect handlers report it.
DAXO_EXPORT DAXO_Error ConvertConnackCode(int connackCode) DAXO_NOEXCEPT;
DAXO_EXPORT int ParseErrorMessage(const char* message, int* err, char** errString) DAXO_NOEXCEPT;
DAXO_EXPORT void LogParseErrorMessage(DAXO_Client* client, const char* topic,
                                      const char* errMessage) DAXO_NOEXCEPT;

// Logging.
DAXO_EXPORT void LogMessage(DAXO_Client* client, const char* message) DAXO_NOEXCEPT;
DAXO_EXPORT void LogCallback(struct mosquitto* mosq, void* obj, int level,
                             const char* str) DAXO_NOEXCEPT;

// Certificate watch thread.
DAXO_EXPORT int StartCertificateCheckingThread(DAXO_Client* client) DAXO_NOEXCEPT;
DAXO_EXPORT void StopCertificateCheckingThread(DAXO_Client* client) DAXO_NOEXCEPT;
DAXO_EXPORT void* CertificateCheckingThread(void* param) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error CheckCertificatesExpirationDates(DAXO_Client* client) DAXO_NOEXCEPT;

// Certificate expiry check and renewal.
DAXO_EXPORT DAXO_Error CheckClientCertificateExpirationDate(
    DAXO_Client* client, OnCertificateRenewCallback callback) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error CheckCAExpirationDate(DAXO_Client* client,
                                             OnCertificateRenewCallback callback) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error SendCertificateContentToCheckExpireDate(DAXO_Client* client,
                                                               char* fileName) DAXO_NOEXCEPT;
DAXO_EXPORT void CallOnCertificateRenewCallback(DAXO_Client* client, DAXO_Error err) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error ProcessCheckExpireDateCommand(DAXO_Client* client, char** topics,
                                                     const int topicCount, const char* message,
                                                     const char* topic) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error ProcessNewCertificateCommand(DAXO_Client* client, char** topics,
                                                    const int topicCount, const char* message,
                                                    const char* topic) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error RenewClientCertificate(DAXO_Client* client) DAXO_NOEXCEPT;
DAXO_EXPORT void CertificateRenewOnConnectCallback(DAXO_Client* client, void* callbackParameter,
                                                   DAXO_Error err) DAXO_NOEXCEPT;
DAXO_EXPORT const char* GetStringValueForKeyFromJson(struct json_object* objJson,
                                                     const char* key) DAXO_NOEXCEPT;
DAXO_EXPORT int WillDateExpireInDays(const char* dateStr, const int days) DAXO_NOEXCEPT;
DAXO_EXPORT int IsDateExpired(const struct tm* date) DAXO_NOEXCEPT;
DAXO_EXPORT int ParseDatePartsFromString(const char* dateStr, size_t sizeOfPart,
                                         size_t from) DAXO_NOEXCEPT;

// Provisioning and the certificate store.
DAXO_EXPORT DAXO_Error ProvisionClientInternal(DAXO_Client* client,
                                               MosquittoInterface* mosquitto) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error ProvisionClient(DAXO_Client* client,
                                       MosquittoInterface* mosquitto) DAXO_NOEXCEPT;
DAXO_EXPORT void ProvisionCallback(DAXO_Client* client, void* callbackParameter,
                                   DAXO_Error err) DAXO_NOEXCEPT;
DAXO_EXPORT void ProcessCertBack(DAXO_Client* client,
                                 const struct mosquitto_message* message) DAXO_NOEXCEPT;
DAXO_EXPORT void ProcessCertBackError(DAXO_Client* client,
                                      const struct mosquitto_message* message) DAXO_NOEXCEPT;
DAXO_EXPORT void ProvisionDisconnect(DAXO_Client* client) DAXO_NOEXCEPT;
DAXO_EXPORT void FreeProvisionData(DAXO_Client* client) DAXO_NOEXCEPT;
DAXO_EXPORT int WriteCertificateFile(DAXO_Client* client, const char* fileName,
                                     const char* content, int contentLen) DAXO_NOEXCEPT;
DAXO_EXPORT int CheckCertificates(DAXO_Client* client) DAXO_NOEXCEPT;
// Called before each step that writes or renames a file of the identity, so
// that tests can stop a process there; null otherwise.
DAXO_EXPORT extern void (*IdentityStepHook)(const char* step);
DAXO_EXPORT int DeleteCertificates(DAXO_Client* client) DAXO_NOEXCEPT;

#ifdef __cplusplus
}

#include <cstdarg>
#include <string_view>

#include "c_handles.h"

namespace daxo {

// The MQTT API version, level 1 of every topic of the client's tree.
inline constexpr const char* kApiVersion = "v1.0";

// The client's identity in its certificate folder.
inline constexpr const char* kCertFileName = "cert.crt";
inline constexpr const char* kKeyFileName = "priv_key.key";
// The agent's own authority, which it looks after: the library never
// writes it and leaves its expiry to the agent.
inline constexpr const char* kAgentAuthorityFile =
    "/var/lib/quellborne-iot-agent/certs/QuellborneAuthority.crt";

// Formats a line and hands it to OnLog; nothing is formatted without OnLog,
// and a line that cannot be formatted is dropped.
void LogFormat(DAXO_Client* client, const char* fmt, ...) noexcept
    __attribute__((format(printf, 2, 3)));

// Payloads are logged up to this many bytes, then their length: a 16 MB
// message must not become 16 MB of log lines.
inline constexpr size_t kLoggedPayloadMax = 1024;
// Logs "label: topic\npayload" ("label: payload" without a topic), the
// payload cut to kLoggedPayloadMax; false when the line cannot be made.
bool LogPayload(DAXO_Client* client, const char* label, const char* topic,
                const char* payload) noexcept;

// Transport results as the library reports them.
DAXO_Error ConnectResultToError(int rc) noexcept;
DAXO_Error LoopStartResultToError(int rc) noexcept;
DAXO_Error PublishResultToError(int rc) noexcept;
DAXO_Error SubscribeResultToError(int rc) noexcept;

// Publishes at QoS 2 without retain on instance mi (none: no connection).
DAXO_Error PublishOn(MosquittoInterface* mi, const char* topic, const char* message, int length,
                     int* messageId) noexcept;

// Request bodies: a new object (NoMemory when it cannot be made), and a
// member added to it, owned by the parent only once added (a null value is
// NoMemory, a refused addition ComposeJson).
std::unique_ptr<json_object, CFree<json_object_put>> NewObject(DAXO_Error* err) noexcept;
DAXO_Error AddMember(json_object* parent, const char* key, json_object* value) noexcept;

// {"metrics": []}, the body of the metric requests; *metrics is its array,
// owned by the body.
JsonPtr MetricsBody(json_object** metrics, DAXO_Error* err) noexcept;

// The text of a body, owned by the body; null (and *err) when it cannot be
// rendered whole.
const char* Render(const json_object* body, DAXO_Error* err) noexcept;

// A message from the agent as a document, or null when it is not one JSON
// value (trailing text included) or memory ran out while reading it.
std::unique_ptr<json_object, CFree<json_object_put>> ParseJson(const char* text) noexcept;

// The one path of every request: sends body (null: "{}") on the client's
// tree, levels being formatted like printf below "/v1.0/<clientId>/".
DAXO_Error Request(DAXO_Client* client, const json_object* body, const char* levels, ...) noexcept
    __attribute__((format(printf, 3, 4)));
DAXO_Error RequestV(DAXO_Client* client, const json_object* body, const char* levels,
                    va_list args) noexcept __attribute__((format(printf, 3, 0)));

// The sensor requests after their guard clauses.
DAXO_Error CreateSensor(DAXO_Client* client, const char* name) noexcept;
DAXO_Error UpdateSensor(DAXO_Client* client, const char* sensorId, const char* sensorName) noexcept;
DAXO_Error DeleteSensor(DAXO_Client* client, const char* sensorId) noexcept;
DAXO_Error ListSensors(DAXO_Client* client) noexcept;
DAXO_Error DescribeMetric(DAXO_Client* client, const char* sensorId, const char* metricId) noexcept;

// Metric definitions, values and error reports after their guard clauses.
DAXO_Error SendMetricSchemas(DAXO_Client* client, const char* sensorId,
                             const DAXO_MetricSchemaContainer* container, bool update) noexcept;
DAXO_Error DeleteMetrics(DAXO_Client* client, const char* sensorId, char** metricIds,
                         int metricsCount) noexcept;
DAXO_Error PushMetricValues(DAXO_Client* client, const char* sensorId,
                            const DAXO_MetricValueContainer* container) noexcept;
DAXO_Error ReportError(DAXO_Client* client, const char* codeMember, int error,
                       const char* errMessage, const char* levels, ...) noexcept
    __attribute__((format(printf, 5, 6)));

// The body of DAXO_DeprovisionClient after its guard clauses.
DAXO_Error Deprovision(DAXO_Client* client) noexcept;
// The body of DAXO_ResetIdentity after its guard clauses.
DAXO_Error ResetClientIdentity(DAXO_Client* client) noexcept;

// The body of DAXO_CheckConnection after its guard clauses.
DAXO_Error CheckConnection(DAXO_Client* client) noexcept;

// Flags shared between threads without a lock are read and written whole.
inline int Load(const int& flag) noexcept { return __atomic_load_n(&flag, __ATOMIC_ACQUIRE); }
inline void Store(int& flag, int value) noexcept { __atomic_store_n(&flag, value, __ATOMIC_RELEASE); }
// Callbacks too: the application and a renewal set them while network
// threads call them.
template <class Callback>
Callback Get(const Callback& field) noexcept {
  return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

// No provisioning exchange waits longer than this for the agent's answer.
inline constexpr long long kProvisionTimeoutMs = 30000;

class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t* mutex) noexcept : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~MutexLock() { pthread_mutex_unlock(mutex_); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

// Marks the current thread as one of the library's for the scope: a
// network thread inside one of the library's handlers, or a watch thread.
class LibraryThreadScope {
 public:
  LibraryThreadScope() noexcept;
  ~LibraryThreadScope();
  LibraryThreadScope(const LibraryThreadScope&) = delete;
  LibraryThreadScope& operator=(const LibraryThreadScope&) = delete;
};
bool OnLibraryThread() noexcept;

// A change to the client's connections (connection_owner.cpp). On an
// application thread it is carried out at once with ownerMutex held and its
// result returned; on a library thread it is handed to the watch thread and
// DAXO_Error_Success returned (NoMemory when it cannot be queued), its
// failure reaching the application through its callback.
DAXO_Error RunOnOwner(DAXO_Client* client, OwnerCommand command,
                      MosquittoInterface* record) noexcept;
// With certCheckThreadMutex held: whether tasks are queued.
bool HasOwnerWork(const DAXO_Client* client) noexcept;
// Run by the watch thread: carries out the queued tasks.
void RunOwnerTasks(DAXO_Client* client) noexcept;
// Once the watch thread has ended: what network threads handed over late.
void FreeOwnerTasks(DAXO_Client* client) noexcept;

// The owner's side of the connection changes (connection.cpp).
DAXO_Error ConnectNow(DAXO_Client* client, MosquittoInterface* record) noexcept;
DAXO_Error DisconnectMain(DAXO_Client* client) noexcept;
void ReleaseConnections(DAXO_Client* client) noexcept;
void ReleaseProvisioning(DAXO_Client* client) noexcept;
// Ends, with a failure outcome, an exchange whose answer is overdue.
void EndStalledExchange(DAXO_Client* client) noexcept;
// Reports a failure of the main connection that no synchronous caller hears.
void ReportConnectFailure(DAXO_Client* client, DAXO_Error err) noexcept;

// Connection supervision (connection_watch.cpp).
long long NowMs() noexcept;  // monotonic, counting suspended time
void WatchAttempt(ConnectionWatch& watch) noexcept;  // an attempt starts now
void WatchConnected(ConnectionWatch& watch) noexcept;
void WatchLost(ConnectionWatch& watch, bool reported) noexcept;
// Whether other threads may publish on the watch's instance.
void SetSendable(DAXO_Client* client, ConnectionWatch& watch, int sendable) noexcept;
struct Endpoint;
// Connects mi asynchronously to the endpoint's port and starts its network
// thread, as the endpoint's watch looks after.
DAXO_Error StartAttempt(const Endpoint& at, MosquittoInterface* mi) noexcept;
// Restarts the attempts libmosquitto abandoned, ends provisioning exchanges
// that have waited too long; run by the owner.
void SuperviseConnections(DAXO_Client* client) noexcept;
// True while an instance runs, or is wanted, that the owner must look after.
bool NeedsSupervision(const DAXO_Client* client) noexcept;
// Makes the watch thread re-read what it has to do.
void WakeWatchThread(DAXO_Client* client) noexcept;

// Why connections fail (connection_failures.cpp). Each records the reason on
// the watch of the connection to port, and logs it as "Connection to
// HOST:PORT failed: ..." unless this outage has named it already.
struct Endpoint {
  DAXO_Client* client;
  ConnectionWatch& watch;
  int port;
  bool clientCertificate;  // presented in the handshake: the main connection
};
Endpoint MainEndpoint(DAXO_Client* client) noexcept;
Endpoint ProvisionEndpoint(DAXO_Client* client) noexcept;
// A new connection: nothing of an earlier one is named any more.
void ForgetFailures(ConnectionWatch& watch) noexcept;
// A connect that failed at once, with the errno it left.
DAXO_Error NoteStartFailure(const Endpoint& at, int rc, int errnum) noexcept;
// A network thread that could not start.
void NoteLoopFailure(const Endpoint& at, DAXO_Error err) noexcept;
// A socket whose connection failed (errnum 0: unknown).
void NoteSocketFailure(const Endpoint& at, int errnum) noexcept;
// The broker's CONNACK refusal; returns its code.
DAXO_Error NoteRefusal(const Endpoint& at, int connackCode) noexcept;
// A connection closed before the broker accepted it, with libmosquitto's rc
// (errno as libmosquitto left it).
void NoteClosedBeforeAccepted(const Endpoint& at, int rc) noexcept;
// A line from libmosquitto: a TLS failure it names is recorded.
void NoteTransportLine(const Endpoint& at, const char* line) noexcept;
// The reason to report for an outage that has lasted too long: the last
// failure, or a timeout (named now) when no attempt has failed.
DAXO_Error OutageReason(const Endpoint& at, long long waitedMs) noexcept;

// Carries out a reconnection the renewal asked for; run by the owner.
void RunRenewalTask(DAXO_Client* client, int task, char* content) noexcept;
// Run by the owner each pass: commits a renewal whose new connection came
// up, or puts the old files back when it was refused or took too long.
void SuperviseRenewalTrial(DAXO_Client* client) noexcept;

// The identity on disk (identity_files.cpp).
// Replaces path with content (a key: mode 0600; anything else keeps the
// mode of the file it replaces) so that it holds the old content or the
// new whatever happens; 0 or the errno of the failed step, which is logged.
int WriteDurably(DAXO_Client* client, const char* path, const char* content, size_t length,
                 bool secret) noexcept;
// The key of a first provisioning, kept pending until its certificate comes.
bool WritePendingKey(DAXO_Client* client, const char* key) noexcept;
char* ReadPendingKey(DAXO_Client* client) noexcept;
// Installs a key (null: the pending one) and its certificate as a pair.
bool InstallIdentity(DAXO_Client* client, const char* key, const char* cert,
                     size_t certLength) noexcept;
// A renewal's trial: the installed pair is kept (as links) before it is
// replaced, dropped once the new one is proven, put back if it is not.
bool KeepOldIdentity(DAXO_Client* client) noexcept;
void DropOldIdentity(DAXO_Client* client) noexcept;
bool PutBackOldIdentity(DAXO_Client* client) noexcept;
// Completes or discards a replacement a stopped process left unfinished.
void RecoverIdentity(DAXO_Client* client) noexcept;
// WrongCertificateFile (key and certificate that exist but cannot be used)
// or ClientCertificateExpired, each with its line; missing files pass.
DAXO_Error CheckStoredIdentity(DAXO_Client* client) noexcept;
// Removes the key and certificate, pending and kept ones included.
DAXO_Error ResetIdentity(DAXO_Client* client) noexcept;

// The longest configuration line, its newline not counted.
inline constexpr size_t kConfigLineMax = 4096;

// What the configuration reader found wrong, to be put in words.
struct ConfigProblem {
  enum What {
    kNone,
    kOpen,
    kRead,
    kNotRegular,
    kTooLong,
    kBadNumber,
    kBadWord,
    kMissing,
    kNoMemory
  };
  What what;
  int line;         // 1-based; 0 when the problem is not on one line
  const char* key;  // the setting concerned, or null
  int errnum;       // errno of a failed open or read
  int min, max;     // the numbers a refused value may take
  bool zeroAllowed;
  const std::string_view* words;  // the words a refused keyword may be
  size_t wordCount;
  char value[48];  // the refused value, cut to fit
};
// LoadConfig, with what went wrong described in *problem.
DAXO_Error ReadConfig(DAXO_Client* client, const char* confFile, ConfigProblem* problem) noexcept;
// DAXO_ExplainConfig after its guard clauses.
DAXO_Error ExplainConfig(const char* confFile, char* buffer, size_t size) noexcept;

// The push store (push_store.cpp), on when PushStore is configured. Opened
// by DAXO_Connect: Success when off or already open, else the code of a
// store that cannot be used (logged).
DAXO_Error OpenPushStore(DAXO_Client* client) noexcept;
// Keeps a push and sends it when the agent can hear it.
DAXO_Error StorePush(DAXO_Client* client, const char* sensorId, const char* topic,
                     const char* payload) noexcept;
// Whether the push store is on: it then takes the answers to pushes and
// tells the application of them once they are proven.
inline bool PushStoreOn(const DAXO_Client* client) noexcept {
  return __atomic_load_n(&client->pushStore, __ATOMIC_ACQUIRE) != nullptr;
}
// An answer to a push of sensorId, with the agent's code.
void StoreAnswered(DAXO_Client* client, const char* sensorId, DAXO_ApiError code) noexcept;
// An answer to a connection check: true when it answered the library's own.
bool StoreCheckAnswered(DAXO_Client* client) noexcept;
// The application's connection check, sent in its place among the pushes.
DAXO_Error StoreCheck(DAXO_Client* client) noexcept;
// The client's topics are subscribed on a new connection, or it is gone.
void StoreOnline(DAXO_Client* client) noexcept;
void StoreOffline(DAXO_Client* client) noexcept;
// Run by the owner: a connection check when the agent has gone quiet.
void SuperviseStore(DAXO_Client* client) noexcept;
size_t StoredPushCount(const DAXO_Client* client) noexcept;
// A memory store's pushes end with the client's identity.
void DropMemoryStore(DAXO_Client* client) noexcept;
void ClosePushStore(DAXO_Client* client) noexcept;

// Everything DAXO_DeleteClient releases, on a non-null client.
void DestroyClient(DAXO_Client* client) noexcept;

}  // namespace daxo
#endif

#endif

/*
 * reuse_sensor: a device program that keeps one sensor across restarts.
 *
 *   reuse_sensor /etc/daxo/client.conf [SENSOR_NAME]
 *
 * A program that creates its sensor at every start leaves the agent with a
 * new sensor per restart, each holding a piece of the history. This one asks
 * the agent for the client's sensors first and reuses the one named
 * SENSOR_NAME (default "boiler") with its metric; it creates the sensor, or
 * only the metric, when the agent has none. Then it pushes one value.
 *
 * The identity in CertFolder must be kept too: a client provisioned anew is
 * another client, with no sensors at all. Run it twice: the second run
 * prints "reused" where the first printed "created".
 *
 * Exit status: 0 on success, 1 when a step fails, 2 for a wrong command line.
 */
#define _POSIX_C_SOURCE 200809L /* pthreads on older systems */

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "daxo_client.h"

#define ANSWER_TIMEOUT_SECONDS 20

/* One answer at a time, from the library's threads to main. */
typedef struct Mailbox {
  pthread_mutex_t lock;
  pthread_cond_t arrived;
  const char* sensorName; /* what OnListSensors looks for; set before the request */
  const char* kind;       /* which answer is in the box, NULL when empty */
  int code;               /* the DAXO_Error or DAXO_ApiError it carried */
  char sensorId[256];     /* copied: strings die with the callback */
  char metricId[256];
} Mailbox;

static void Post(Mailbox* box, const char* kind, int code, const char* sensorId,
                 const char* metricId) {
  pthread_mutex_lock(&box->lock);
  box->kind = kind;
  box->code = code;
  snprintf(box->sensorId, sizeof box->sensorId, "%s", sensorId != NULL ? sensorId : "");
  snprintf(box->metricId, sizeof box->metricId, "%s", metricId != NULL ? metricId : "");
  pthread_cond_signal(&box->arrived);
  pthread_mutex_unlock(&box->lock);
}

/* Waits for the answer named kind and empties the box; 0 when it came in
 * time, -1 otherwise. The ids are copied out when the buffers are given. */
static int Await(Mailbox* box, const char* kind, int* code, char* sensorId, char* metricId) {
  struct timespec deadline;
  int result = 0;
  timespec_get(&deadline, TIME_UTC);
  deadline.tv_sec += ANSWER_TIMEOUT_SECONDS;
  pthread_mutex_lock(&box->lock);
  while (box->kind == NULL || strcmp(box->kind, kind) != 0) {
    if (pthread_cond_timedwait(&box->arrived, &box->lock, &deadline) == ETIMEDOUT) {
      result = -1;
      break;
    }
  }
  if (result == 0) {
    *code = box->code;
    if (sensorId != NULL) memcpy(sensorId, box->sensorId, sizeof box->sensorId);
    if (metricId != NULL) memcpy(metricId, box->metricId, sizeof box->metricId);
    box->kind = NULL;
  }
  pthread_mutex_unlock(&box->lock);
  if (result != 0) fprintf(stderr, "no %s answer within %d s\n", kind, ANSWER_TIMEOUT_SECONDS);
  return result;
}

static void OnLog(DAXO_Client* client, const char* line, void* mailbox) {
  (void)client;
  (void)mailbox;
  fprintf(stderr, "daxo: %s\n", line);
}

static void OnProvision(DAXO_Client* client, void* mailbox, DAXO_Error err) {
  (void)client;
  Post(mailbox, "provision", err, NULL, NULL);
}

static void OnConnect(DAXO_Client* client, void* mailbox, DAXO_Error err) {
  (void)client;
  Post(mailbox, "connect", err, NULL, NULL);
}

static void OnDisconnect(DAXO_Client* client, void* mailbox, DAXO_Error err) {
  (void)client;
  Post(mailbox, "disconnect", err, NULL, NULL);
}

/* The first sensor with our name wins; its first metric is ours, since this
 * program gives its sensor exactly one. An empty sensorId means "absent". */
static void OnListSensors(DAXO_Client* client, DAXO_SensorsInfo* list, void* mailbox,
                          DAXO_ApiError err) {
  Mailbox* box = mailbox;
  const DAXO_SensorMetadata* found = NULL;
  int i;
  (void)client;
  for (i = 0; list != NULL && i < list->sensorsCount && found == NULL; i++) {
    const DAXO_SensorMetadata* sensor = &list->sensors[i];
    if (sensor->name != NULL && strcmp(sensor->name, box->sensorName) == 0) found = sensor;
  }
  Post(box, "list", err, found != NULL ? found->sensorId : NULL,
       found != NULL && found->metricsCount > 0 ? found->metrics[0].metricId : NULL);
  DAXO_DestroySensorsInfo(list); /* the list became ours; the ids were copied */
}

static void OnCreateSensor(DAXO_Client* client, void* mailbox, const char* name,
                           const char* sensorId, DAXO_ApiError err) {
  (void)client;
  (void)name;
  Post(mailbox, "sensor", err, sensorId, NULL);
}

static void OnCreateMetrics(DAXO_Client* client, void* mailbox, DAXO_CreatedMetrics* created,
                            DAXO_ApiError err) {
  (void)client;
  Post(mailbox, "metrics", err, NULL,
       created != NULL && created->metricsCount > 0 ? created->metrics[0].metricId : NULL);
  DAXO_DestroyCreatedMetrics(created);
}

static void OnPush(DAXO_Client* client, void* mailbox, const char* sensorId, DAXO_ApiError err) {
  (void)client;
  Post(mailbox, "push", err, sensorId, NULL);
}

/* The agent's answers report success as DAXO_ApiError_NoError. */
static int AgentAccepted(Mailbox* box, const char* kind, char* sensorId, char* metricId) {
  int code;
  if (Await(box, kind, &code, sensorId, metricId) != 0) return 0;
  if (code != DAXO_ApiError_NoError)
    fprintf(stderr, "%s: the agent answered %s\n", kind, DAXO_ApiErrorName(code));
  return code == DAXO_ApiError_NoError;
}

/* Fills sensorId and metricId with the agent's, reusing what it has. Both
 * buffers hold 256 bytes. */
static int FindOrCreate(DAXO_Client* client, Mailbox* box, char* sensorId, char* metricId) {
  char unused[256];
  DAXO_MetricSchemaContainer* schema;
  DAXO_Error err;

  if (DAXO_ListSensors(client) != DAXO_Error_Success ||
      !AgentAccepted(box, "list", sensorId, metricId))
    return 0;
  if (sensorId[0] != '\0') {
    printf("sensor %s reused\n", sensorId);
  } else {
    if (DAXO_CreateSensor(client, box->sensorName) != DAXO_Error_Success ||
        !AgentAccepted(box, "sensor", sensorId, NULL))
      return 0;
    printf("sensor %s created\n", sensorId);
  }
  /* A sensor without a metric is what a run stopped between the two
   * requests leaves behind: it only lacks the metric. */
  if (metricId[0] != '\0') {
    printf("metric %s reused\n", metricId);
    return 1;
  }
  schema = DAXO_CreateMetricSchemaContainer();
  if (schema == NULL) return 0;
  err = DAXO_AddStandardMetricSchema(schema, "t", "temperature", DAXO_ValueUnit_SICelsius);
  if (err == DAXO_Error_Success) err = DAXO_CreateMetrics(client, sensorId, schema);
  DAXO_DestroyMetricSchemaContainer(schema);
  if (err != DAXO_Error_Success || !AgentAccepted(box, "metrics", unused, metricId)) return 0;
  printf("metric %s created\n", metricId);
  return 1;
}

static int Push(DAXO_Client* client, Mailbox* box, const char* sensorId, const char* metricId) {
  struct timespec now;
  DAXO_Error err;
  DAXO_MetricValueContainer* values = DAXO_CreateMetricValueContainer();
  if (values == NULL) return 0;
  timespec_get(&now, TIME_UTC);
  err = DAXO_AddDoubleMetricValue(values, 64.5, metricId);
  if (err == DAXO_Error_Success)
    err = DAXO_AddEpochTimeStamp(values, (uint64_t)now.tv_sec * 1000u +
                                             (uint64_t)now.tv_nsec / 1000000u);
  if (err == DAXO_Error_Success) err = DAXO_PushMetricValues(client, sensorId, values);
  DAXO_DestroyMetricValueContainer(values);
  if (err != DAXO_Error_Success || !AgentAccepted(box, "push", NULL, NULL)) return 0;
  printf("pushed 64.5 to metric %s\n", metricId);
  return 1;
}

/* Provisions only when CertFolder holds no identity yet, then connects. */
static int ProvisionAndConnect(DAXO_Client* client, Mailbox* box) {
  int code;
  DAXO_Error err = DAXO_ProvisionClient(client);
  if (err != DAXO_Error_Success && err != DAXO_Error_AlreadyProvisioned) {
    fprintf(stderr, "provisioning could not start: %s\n", DAXO_ErrorName(err));
    return 0;
  }
  if (Await(box, "provision", &code, NULL, NULL) != 0) return 0;
  if (code != DAXO_Error_Success && code != DAXO_Error_AlreadyProvisioned) {
    fprintf(stderr, "provisioning failed: %s\n", DAXO_ErrorName(code));
    return 0;
  }
  printf("client %s\n", DAXO_GetClientId(client));
  if (DAXO_Connect(client) != DAXO_Error_Success || Await(box, "connect", &code, NULL, NULL) != 0)
    return 0;
  if (code != DAXO_Error_Success) fprintf(stderr, "connection failed: %s\n", DAXO_ErrorName(code));
  return code == DAXO_Error_Success;
}

int main(int argc, char** argv) {
  Mailbox box = {0};
  char sensorId[256], metricId[256];
  DAXO_Client* client;
  DAXO_Error err;
  int ok, code;

  if (argc != 2 && argc != 3) {
    fprintf(stderr, "usage: %s CONFIG_FILE [SENSOR_NAME]\n", argv[0]);
    return 2;
  }
  box.sensorName = argc == 3 ? argv[2] : "boiler";
  pthread_mutex_init(&box.lock, NULL);
  pthread_cond_init(&box.arrived, NULL);
  setvbuf(stdout, NULL, _IOLBF, 0);

  DAXO_LibInit();
  client = DAXO_NewClient(argv[1], &box, &err);
  if (client == NULL) {
    fprintf(stderr, "cannot create the client from %s: %s\n", argv[1], DAXO_ErrorName(err));
    return 1;
  }
  DAXO_LogCallbackSet(client, OnLog);
  DAXO_ProvisionClientCallbackSet(client, OnProvision);
  DAXO_ConnectCallbackSet(client, OnConnect);
  DAXO_DisconnectCallbackSet(client, OnDisconnect);
  DAXO_ListSensorsCallbackSet(client, OnListSensors);
  DAXO_CreateSensorCallbackSet(client, OnCreateSensor);
  DAXO_CreateMetricsCallbackSet(client, OnCreateMetrics);
  DAXO_PushMetricValuesCallbackSet(client, OnPush);

  ok = ProvisionAndConnect(client, &box) && FindOrCreate(client, &box, sensorId, metricId) &&
       Push(client, &box, sensorId, metricId);

  if (DAXO_Disconnect(client) == DAXO_Error_Success && ok)
    ok = Await(&box, "disconnect", &code, NULL, NULL) == 0 && code == DAXO_Error_Success;
  DAXO_DeleteClient(client);
  DAXO_LibCleanup();
  pthread_cond_destroy(&box.arrived);
  pthread_mutex_destroy(&box.lock);
  return ok ? 0 : 1;
}

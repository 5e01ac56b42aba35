/*
 * minimal_push: the shortest complete path from nothing to one measurement
 * stored by the agent.
 *
 *   minimal_push /etc/daxo/client.conf
 *
 * It provisions the client (or reuses the identity found in CertFolder),
 * connects, creates a sensor "room", gives it one metric "temperature" in
 * degrees Celsius and pushes a single value with the current time.
 *
 * Every request of the library returns at once and its answer arrives later,
 * through a callback, on a thread of the library. This program waits for each
 * answer before sending the next request: the callbacks store the answer in a
 * mailbox guarded by a mutex and wake the main thread through a condition
 * variable. Each wait is bounded, so a missing agent ends the program with an
 * error instead of hanging it.
 *
 * Exit status: 0 on success, 1 when a step fails, 2 for a wrong command line.
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep, and pthreads on older systems */

#include <stdio.h>
#include <string.h>
#include <errno.h>
#include <pthread.h>
#include <time.h>

#include "daxo_client.h"

#define ANSWER_TIMEOUT_SECONDS 20

/* The mailbox shared by the callbacks (writers) and main (the reader). */
typedef struct Mailbox {
  pthread_mutex_t lock;
  pthread_cond_t arrived;
  const char* kind; /* which answer is in the box, NULL when empty */
  int code;         /* the DAXO_Error or DAXO_ApiError it carried */
  char id[256];     /* an identifier it carried, copied: see Post */
} Mailbox;

/* Called from the library's threads. Strings given to a callback are valid
 * only during the call, so the identifier is copied into the mailbox. */
static void Post(Mailbox* box, const char* kind, int code, const char* id) {
  pthread_mutex_lock(&box->lock);
  box->kind = kind;
  box->code = code;
  snprintf(box->id, sizeof box->id, "%s", id != NULL ? id : "");
  pthread_cond_signal(&box->arrived);
  pthread_mutex_unlock(&box->lock);
}

/* Waits for the answer named kind; returns 0 when it came in time, with its
 * code and identifier copied out, and -1 otherwise. */
static int Await(Mailbox* box, const char* kind, int* code, char* id, size_t idSize) {
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
    if (id != NULL) snprintf(id, idSize, "%s", box->id);
    box->kind = NULL; /* empty the box for the next answer */
  }
  pthread_mutex_unlock(&box->lock);
  if (result != 0) fprintf(stderr, "no %s answer within %d s\n", kind, ANSWER_TIMEOUT_SECONDS);
  return result;
}

/* The callbacks. callbackParameter is the pointer given to DAXO_NewClient:
 * here, the mailbox. */

static void OnLog(DAXO_Client* client, const char* line, void* mailbox) {
  (void)client;
  (void)mailbox;
  fprintf(stderr, "daxo: %s\n", line);
}

static void OnProvision(DAXO_Client* client, void* mailbox, DAXO_Error err) {
  (void)client;
  Post(mailbox, "provision", err, NULL);
}

static void OnConnect(DAXO_Client* client, void* mailbox, DAXO_Error err) {
  (void)client;
  Post(mailbox, "connect", err, NULL);
}

static void OnDisconnect(DAXO_Client* client, void* mailbox, DAXO_Error err) {
  (void)client;
  Post(mailbox, "disconnect", err, NULL);
}

static void OnCreateSensor(DAXO_Client* client, void* mailbox, const char* name,
                           const char* sensorId, DAXO_ApiError err) {
  (void)client;
  (void)name;
  Post(mailbox, "sensor", err, sensorId);
}

/* The record belongs to the application once delivered: destroy it. */
static void OnCreateMetrics(DAXO_Client* client, void* mailbox, DAXO_CreatedMetrics* created,
                            DAXO_ApiError err) {
  (void)client;
  const char* metricId = NULL;
  if (created != NULL && created->metricsCount > 0) metricId = created->metrics[0].metricId;
  Post(mailbox, "metrics", err, metricId);
  DAXO_DestroyCreatedMetrics(created);
}

static void OnPush(DAXO_Client* client, void* mailbox, const char* sensorId, DAXO_ApiError err) {
  (void)client;
  Post(mailbox, "push", err, sensorId);
}

/* The agent's answers report success as DAXO_ApiError_NoError. */
static int AgentAccepted(Mailbox* box, const char* kind, char* id, size_t idSize) {
  int code;
  if (Await(box, kind, &code, id, idSize) != 0) return 0;
  if (code != DAXO_ApiError_NoError) fprintf(stderr, "%s: the agent answered %d\n", kind, code);
  return code == DAXO_ApiError_NoError;
}

/* Creates the sensor and its metric, then pushes one value. */
static int Measure(DAXO_Client* client, Mailbox* box) {
  char sensorId[256], metricId[256];
  DAXO_MetricSchemaContainer* schema;
  DAXO_MetricValueContainer* values;
  struct timespec now;
  DAXO_Error err;

  if (DAXO_CreateSensor(client, "room") != DAXO_Error_Success ||
      !AgentAccepted(box, "sensor", sensorId, sizeof sensorId))
    return 0;
  printf("sensor %s\n", sensorId);

  /* "t" is our own name for the metric; the agent answers with its id. */
  schema = DAXO_CreateMetricSchemaContainer();
  if (schema == NULL) return 0;
  err = DAXO_AddStandardMetricSchema(schema, "t", "temperature", DAXO_ValueUnit_SICelsius);
  if (err == DAXO_Error_Success) err = DAXO_CreateMetrics(client, sensorId, schema);
  DAXO_DestroyMetricSchemaContainer(schema); /* sending copied it */
  if (err != DAXO_Error_Success || !AgentAccepted(box, "metrics", metricId, sizeof metricId))
    return 0;
  printf("metric %s\n", metricId);

  /* The time of the measurement: milliseconds since the epoch, UTC. */
  timespec_get(&now, TIME_UTC);
  values = DAXO_CreateMetricValueContainer();
  if (values == NULL) return 0;
  err = DAXO_AddDoubleMetricValue(values, 21.5, metricId);
  if (err == DAXO_Error_Success)
    err = DAXO_AddEpochTimeStamp(values, (uint64_t)now.tv_sec * 1000u +
                                             (uint64_t)now.tv_nsec / 1000000u);
  if (err == DAXO_Error_Success) err = DAXO_PushMetricValues(client, sensorId, values);
  DAXO_DestroyMetricValueContainer(values);
  if (err != DAXO_Error_Success || !AgentAccepted(box, "push", NULL, 0)) return 0;
  printf("pushed 21.5 to metric %s\n", metricId);
  return 1;
}

/* Provisions (an identity already on disk is fine) and connects. */
static int ProvisionAndConnect(DAXO_Client* client, Mailbox* box) {
  int code;
  /* On AlreadyProvisioned the callback has run before the call returns, so
   * the answer is in the mailbox either way. */
  DAXO_Error err = DAXO_ProvisionClient(client);
  if (err != DAXO_Error_Success && err != DAXO_Error_AlreadyProvisioned) {
    fprintf(stderr, "provisioning could not start: error %d\n", err);
    return 0;
  }
  if (Await(box, "provision", &code, NULL, 0) != 0) return 0;
  if (code != DAXO_Error_Success && code != DAXO_Error_AlreadyProvisioned) {
    fprintf(stderr, "provisioning failed: error %d\n", code);
    return 0;
  }
  printf("client %s\n", DAXO_GetClientId(client));

  if (DAXO_Connect(client) != DAXO_Error_Success || Await(box, "connect", &code, NULL, 0) != 0)
    return 0;
  if (code != DAXO_Error_Success) fprintf(stderr, "connection failed: error %d\n", code);
  return code == DAXO_Error_Success;
}

int main(int argc, char** argv) {
  Mailbox box = {0};
  DAXO_Client* client;
  DAXO_Error err;
  int ok, code;

  if (argc != 2) {
    fprintf(stderr, "usage: %s CONFIG_FILE\n", argv[0]);
    return 2;
  }
  pthread_mutex_init(&box.lock, NULL);
  pthread_cond_init(&box.arrived, NULL);
  /* Our output is read line by line, possibly through a pipe. */
  setvbuf(stdout, NULL, _IOLBF, 0);

  DAXO_LibInit(); /* once per process, before the first client */
  client = DAXO_NewClient(argv[1], &box, &err);
  if (client == NULL) {
    char why[512]; /* no OnLog can be set yet: the library says why in words */
    DAXO_ExplainConfig(argv[1], why, sizeof why);
    fprintf(stderr, "cannot create the client: %s (error %d)\n", why, err);
    return 1;
  }

  /* Callbacks first: the library's threads read them without a lock. */
  DAXO_LogCallbackSet(client, OnLog);
  DAXO_ProvisionClientCallbackSet(client, OnProvision);
  DAXO_ConnectCallbackSet(client, OnConnect);
  DAXO_DisconnectCallbackSet(client, OnDisconnect);
  DAXO_CreateSensorCallbackSet(client, OnCreateSensor);
  DAXO_CreateMetricsCallbackSet(client, OnCreateMetrics);
  DAXO_PushMetricValuesCallbackSet(client, OnPush);

  ok = ProvisionAndConnect(client, &box) && Measure(client, &box);

  /* A client that never connected gets no disconnect answer. */
  if (DAXO_Disconnect(client) == DAXO_Error_Success && ok)
    ok = Await(&box, "disconnect", &code, NULL, 0) == 0 && code == DAXO_Error_Success;
  DAXO_DeleteClient(client); /* from main, never from a callback */
  DAXO_LibCleanup();         /* after the last client */
  pthread_cond_destroy(&box.arrived);
  pthread_mutex_destroy(&box.lock);
  return ok ? 0 : 1;
}

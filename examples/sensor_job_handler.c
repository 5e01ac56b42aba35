/*
 * sensor_job_handler: receive the sensor jobs the agent sends.
 *
 *   sensor_job_handler /etc/daxo/client.conf 60
 *
 * The agent can ask a device to set up a sensor (a create job, with the
 * sensor's full description) or to remove one (a delete job, with its id).
 * This program provisions and connects the client, then prints every job
 * that arrives during the given number of seconds, and exits.
 *
 * Jobs arrive through callbacks on the library's network thread. A real
 * application would start or stop its measuring there (or hand the job to a
 * thread of its own); this one only prints it.
 *
 * Exit status: 0 when the client connected and the time ran out, 1 when a
 * step fails, 2 for a wrong command line.
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep, and pthreads on older systems */

#include <stdio.h>
#include <stdlib.h>
#include <errno.h>
#include <pthread.h>
#include <time.h>

#include "daxo_client.h"

#define ANSWER_TIMEOUT_SECONDS 20

/* The outcomes of provisioning and connecting, handed from the library's
 * threads to main. -1 means "not arrived yet". */
typedef struct Progress {
  pthread_mutex_t lock;
  pthread_cond_t changed;
  int provision;
  int connect;
} Progress;

static void Set(Progress* p, int* field, int code) {
  pthread_mutex_lock(&p->lock);
  *field = code;
  pthread_cond_signal(&p->changed);
  pthread_mutex_unlock(&p->lock);
}

/* Waits, for a bounded time, until *field has arrived; returns it, or -1. */
static int Await(Progress* p, const int* field) {
  struct timespec deadline;
  int code;
  timespec_get(&deadline, TIME_UTC);
  deadline.tv_sec += ANSWER_TIMEOUT_SECONDS;
  pthread_mutex_lock(&p->lock);
  while (*field == -1 && pthread_cond_timedwait(&p->changed, &p->lock, &deadline) != ETIMEDOUT) {
  }
  code = *field;
  pthread_mutex_unlock(&p->lock);
  return code;
}

static void OnLog(DAXO_Client* client, const char* line, void* progress) {
  (void)client;
  (void)progress;
  fprintf(stderr, "daxo: %s\n", line);
}

static void OnProvision(DAXO_Client* client, void* progress, DAXO_Error err) {
  Progress* p = progress;
  (void)client;
  Set(p, &p->provision, err);
}

static void OnConnect(DAXO_Client* client, void* progress, DAXO_Error err) {
  Progress* p = progress;
  (void)client;
  Set(p, &p->connect, err);
}

/* The record is ours: print what the agent asks for, then destroy it. */
static void OnCreateSensorJob(DAXO_Client* client, DAXO_SensorMetadata* sensor, void* progress) {
  int i;
  (void)client;
  (void)progress;
  printf("create job: sensor %s named \"%s\"", sensor->sensorId, sensor->name);
  if (sensor->frequency > 0) printf(", every %d s", sensor->frequency);
  if (sensor->sensorType == DAXO_SensorType_Standard)
    printf(", monitoring service %s", sensor->monitoringService);
  if (sensor->sensorType == DAXO_SensorType_Plugin)
    printf(", plug-in %s from %s", sensor->pluginName,
           sensor->pluginDownloadUrl != NULL ? sensor->pluginDownloadUrl : "(no URL)");
  printf("\n");
  for (i = 0; i < sensor->pluginParametersCount; ++i)
    printf("  parameter %s = %s\n", sensor->pluginParameters[i].parameterName,
           sensor->pluginParameters[i].parameterValue);
  for (i = 0; i < sensor->metricsCount; ++i) printf("  metric %s\n", sensor->metrics[i].metricId);
  DAXO_DestroySensorMetadata(sensor);
}

/* The id belongs to the library and is valid only during the call. */
static void OnDeleteSensorJob(DAXO_Client* client, const char* sensorId, void* progress) {
  (void)client;
  (void)progress;
  printf("delete job: sensor %s\n", sensorId);
}

/* Reads the run time: whole seconds, 1 to a day. */
static int ParseSeconds(const char* text, long* seconds) {
  char* end;
  *seconds = strtol(text, &end, 10);
  return end != text && *end == '\0' && *seconds >= 1 && *seconds <= 86400;
}

int main(int argc, char** argv) {
  Progress progress = {.provision = -1, .connect = -1};
  DAXO_Client* client;
  DAXO_Error err;
  struct timespec left = {0, 0};
  long seconds;
  int provisioned, connected, ok = 0;

  if (argc != 3 || !ParseSeconds(argv[2], &seconds)) {
    fprintf(stderr, "usage: %s CONFIG_FILE SECONDS\n", argv[0]);
    return 2;
  }
  pthread_mutex_init(&progress.lock, NULL);
  pthread_cond_init(&progress.changed, NULL);
  /* Jobs are printed from another thread and read line by line. */
  setvbuf(stdout, NULL, _IOLBF, 0);

  DAXO_LibInit();
  client = DAXO_NewClient(argv[1], &progress, &err);
  if (client == NULL) {
    char why[512]; /* no OnLog can be set yet: the library says why in words */
    DAXO_ExplainConfig(argv[1], why, sizeof why);
    fprintf(stderr, "cannot create the client: %s (error %d)\n", why, err);
    return 1;
  }
  /* Every callback is set before provisioning and connecting. */
  DAXO_LogCallbackSet(client, OnLog);
  DAXO_ProvisionClientCallbackSet(client, OnProvision);
  DAXO_ConnectCallbackSet(client, OnConnect);
  DAXO_CreateSensorJobCallbackSet(client, OnCreateSensorJob);
  DAXO_DeleteSensorJobCallbackSet(client, OnDeleteSensorJob);

  /* An identity already in CertFolder is reused: DAXO_Error_AlreadyProvisioned. */
  provisioned = DAXO_ProvisionClient(client);
  if (provisioned == DAXO_Error_Success || provisioned == DAXO_Error_AlreadyProvisioned)
    provisioned = Await(&progress, &progress.provision);
  if (provisioned == DAXO_Error_AlreadyProvisioned) provisioned = DAXO_Error_Success;
  connected = -1;
  if (provisioned == DAXO_Error_Success && DAXO_Connect(client) == DAXO_Error_Success)
    connected = Await(&progress, &progress.connect);

  if (connected == DAXO_Error_Success) {
    /* The agent addresses jobs to this id. */
    printf("client %s waiting for jobs for %ld s\n", DAXO_GetClientId(client), seconds);
    left.tv_sec = seconds;
    while (nanosleep(&left, &left) == -1) {
      /* a signal cut the sleep short: sleep for the rest */
    }
    ok = 1;
  } else {
    fprintf(stderr, "could not provision and connect (provision %d, connect %d)\n",
            provisioned, connected);
  }

  DAXO_Disconnect(client);
  DAXO_DeleteClient(client);
  DAXO_LibCleanup();
  pthread_cond_destroy(&progress.changed);
  pthread_mutex_destroy(&progress.lock);
  return ok ? 0 : 1;
}

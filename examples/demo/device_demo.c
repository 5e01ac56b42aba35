/* A device program as it would run on a small Linux device: it reports the
 * machine's own readings to the agent once a second.
 *
 *   device_demo CONFIG [SECONDS]
 *
 * It provisions the client (only the first time: the identity is kept in
 * the certificate folder), connects, creates the sensor "system", defines
 * four metrics and pushes real readings with a timestamp every second,
 * printing each push and the time the agent took to answer. Sensor jobs the
 * agent sends meanwhile are printed. Ctrl-C stops it cleanly. */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "daxo_client.h"

enum { kMetricCount = 4 };

/* What the callbacks tell the main thread. */
struct Demo {
  pthread_mutex_t mutex;
  pthread_cond_t changed;
  int provisioned, connected, sensorCreated, pushAnswers;
  DAXO_Error provisionResult, connectResult;
  DAXO_ApiError lastPushResult;
  char sensorId[128];
  char metricIds[kMetricCount][128];
  int metricsDefined;
};

static struct Demo demo = {.mutex = PTHREAD_MUTEX_INITIALIZER, .changed = PTHREAD_COND_INITIALIZER};
static volatile sig_atomic_t stopRequested;

static const char* const kMatchingIds[kMetricCount] = {"load", "memory_used", "uptime", "status"};

static void Changed(void) {
  pthread_cond_broadcast(&demo.changed);
  pthread_mutex_unlock(&demo.mutex);
}

/* Waits until *counter exceeds before, for at most seconds; 0 on time-out. */
static int WaitForMore(const int* counter, int before, int seconds) {
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += seconds;
  pthread_mutex_lock(&demo.mutex);
  while (*counter <= before && !stopRequested) {
    if (pthread_cond_timedwait(&demo.changed, &demo.mutex, &deadline) != 0) break;
  }
  int done = *counter > before;
  pthread_mutex_unlock(&demo.mutex);
  return done;
}

static int WaitFor(const int* flag, int seconds) { return WaitForMore(flag, 0, seconds); }

static void OnProvision(DAXO_Client* c, void* p, DAXO_Error err) {
  (void)c, (void)p;
  pthread_mutex_lock(&demo.mutex);
  demo.provisionResult = err;
  demo.provisioned = 1;
  Changed();
}

static void OnConnect(DAXO_Client* c, void* p, DAXO_Error err) {
  (void)c, (void)p;
  pthread_mutex_lock(&demo.mutex);
  demo.connectResult = err;
  demo.connected = 1;
  Changed();
}

static void OnCreateSensor(DAXO_Client* c, void* p, const char* name, const char* id,
                           DAXO_ApiError err) {
  (void)c, (void)p, (void)name;
  pthread_mutex_lock(&demo.mutex);
  if (err == DAXO_ApiError_NoError) snprintf(demo.sensorId, sizeof demo.sensorId, "%s", id);
  else fprintf(stderr, "sensor refused: %s\n", DAXO_ApiErrorName(err));
  demo.sensorCreated = 1;
  Changed();
}

static void OnCreateMetrics(DAXO_Client* c, void* p, DAXO_CreatedMetrics* created,
                            DAXO_ApiError err) {
  (void)c, (void)p;
  pthread_mutex_lock(&demo.mutex);
  for (int i = 0; created != NULL && i < created->metricsCount; ++i) {
    for (int m = 0; m < kMetricCount; ++m) {
      if (strcmp(created->metrics[i].matchingId, kMatchingIds[m]) == 0)
        snprintf(demo.metricIds[m], sizeof demo.metricIds[m], "%s", created->metrics[i].metricId);
    }
  }
  if (err != DAXO_ApiError_NoError) fprintf(stderr, "metrics refused: %s\n", DAXO_ApiErrorName(err));
  demo.metricsDefined = 1;
  DAXO_DestroyCreatedMetrics(created); /* the record is ours */
  Changed();
}

static void OnPushed(DAXO_Client* c, void* p, const char* sensorId, DAXO_ApiError err) {
  (void)c, (void)p, (void)sensorId;
  pthread_mutex_lock(&demo.mutex);
  demo.lastPushResult = err;
  demo.pushAnswers++;
  Changed();
}

static void OnSensorJob(DAXO_Client* c, DAXO_SensorMetadata* sensor, void* p) {
  (void)c, (void)p;
  printf("job from the agent: create sensor \"%s\" (id %s, %d metric(s))\n", sensor->name,
         sensor->sensorId, sensor->metricsCount);
  fflush(stdout);
  DAXO_DestroySensorMetadata(sensor);
}

static void OnDeleteJob(DAXO_Client* c, const char* sensorId, void* p) {
  (void)c, (void)p;
  printf("job from the agent: delete sensor %s\n", sensorId);
  fflush(stdout);
}

/* The machine's readings. */
struct Readings {
  double load;
  long long memoryUsedKb;
  double uptimeSeconds;
  const char* status;
};

static struct Readings Read(void) {
  struct Readings r = {0, 0, 0, "ok"};
  FILE* f = fopen("/proc/loadavg", "r");
  if (f != NULL) {
    if (fscanf(f, "%lf", &r.load) != 1) r.load = 0;
    fclose(f);
  }
  f = fopen("/proc/uptime", "r");
  if (f != NULL) {
    if (fscanf(f, "%lf", &r.uptimeSeconds) != 1) r.uptimeSeconds = 0;
    fclose(f);
  }
  long long total = 0, available = 0, value;
  char key[64];
  f = fopen("/proc/meminfo", "r");
  while (f != NULL && fscanf(f, "%63s %lld kB ", key, &value) == 2) {
    if (strcmp(key, "MemTotal:") == 0) total = value;
    if (strcmp(key, "MemAvailable:") == 0) available = value;
  }
  if (f != NULL) fclose(f);
  r.memoryUsedKb = total - available;
  if (r.load > (double)sysconf(_SC_NPROCESSORS_ONLN)) r.status = "busy";
  return r;
}

static double NowMs(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

static int Fail(const char* step, int code, const char* name) {
  fprintf(stderr, "%s failed: %s (%d)\n", step, name, code);
  return 1;
}

static int DefineMetrics(DAXO_Client* client) {
  DAXO_MetricSchemaContainer* schema = DAXO_CreateMetricSchemaContainer();
  if (schema == NULL) return 0;
  DAXO_AddCustomMetricSchema(schema, "load", "load average (1 min)", DAXO_ValueType_Double,
                             "runnable tasks");
  DAXO_AddCustomMetricSchema(schema, "memory_used", "memory in use", DAXO_ValueType_Integer, "kB");
  DAXO_AddStandardMetricSchema(schema, "uptime", "uptime", DAXO_ValueUnit_SISecond);
  DAXO_AddCustomMetricSchema(schema, "status", "status", DAXO_ValueType_String, "ok or busy");
  DAXO_Error err = DAXO_CreateMetrics(client, demo.sensorId, schema);
  DAXO_DestroyMetricSchemaContainer(schema);
  return err == DAXO_Error_Success && WaitFor(&demo.metricsDefined, 10);
}

/* One push; prints the values and the time the agent took to answer. */
static int Push(DAXO_Client* client, int round) {
  struct Readings r = Read();
  DAXO_MetricValueContainer* values = DAXO_CreateMetricValueContainer();
  if (values == NULL) return 0;
  DAXO_AddDoubleMetricValue(values, r.load, demo.metricIds[0]);
  DAXO_AddIntegerMetricValue(values, r.memoryUsedKb, demo.metricIds[1]);
  DAXO_AddDoubleMetricValue(values, r.uptimeSeconds, demo.metricIds[2]);
  DAXO_AddStringMetricValue(values, r.status, demo.metricIds[3]);
  DAXO_AddEpochTimeStamp(values, (uint64_t)time(NULL) * 1000u);
  pthread_mutex_lock(&demo.mutex);
  int answersBefore = demo.pushAnswers;
  pthread_mutex_unlock(&demo.mutex);
  double start = NowMs();
  DAXO_Error err = DAXO_PushMetricValues(client, demo.sensorId, values);
  DAXO_DestroyMetricValueContainer(values); /* the push keeps no reference */
  if (err != DAXO_Error_Success) {
    Fail("push", err, DAXO_ErrorName(err));
    return 0;
  }
  if (!WaitForMore(&demo.pushAnswers, answersBefore, 5)) {
    printf("push %2d: no answer from the agent within 5 s\n", round);
    return 1;
  }
  printf("push %2d: load=%.2f memory_used=%lld kB uptime=%.0f s status=%s  agent answered %s in %.2f ms\n",
         round, r.load, r.memoryUsedKb, r.uptimeSeconds, r.status,
         DAXO_ApiErrorName(demo.lastPushResult), NowMs() - start);
  fflush(stdout);
  return 1;
}

static void OnSignal(int sig) {
  (void)sig;
  stopRequested = 1;
}

static int Run(DAXO_Client* client, int seconds) {
  DAXO_Error err = DAXO_ProvisionClient(client);
  if (err == DAXO_Error_Success) {
    if (!WaitFor(&demo.provisioned, 20)) return Fail("provisioning", 0, "no answer");
    err = demo.provisionResult;
    printf("provisioned as %s\n", DAXO_GetClientId(client));
  } else if (err == DAXO_Error_AlreadyProvisioned) {
    printf("already provisioned as %s: reusing the identity\n", DAXO_GetClientId(client));
    err = DAXO_Error_Success;
  }
  if (err != DAXO_Error_Success) return Fail("provisioning", err, DAXO_ErrorName(err));
  err = DAXO_Connect(client);
  if (err != DAXO_Error_Success) return Fail("connecting", err, DAXO_ErrorName(err));
  if (!WaitFor(&demo.connected, 20)) return Fail("connecting", 0, "no answer");
  err = demo.connectResult;
  if (err != DAXO_Error_Success) return Fail("connecting", err, DAXO_ErrorName(err));
  printf("connected\n");
  if (DAXO_CreateSensor(client, "system") != DAXO_Error_Success ||
      !WaitFor(&demo.sensorCreated, 10) || demo.sensorId[0] == '\0')
    return Fail("creating the sensor", 0, "no answer");
  printf("sensor \"system\" is %s\n", demo.sensorId);
  if (!DefineMetrics(client)) return Fail("defining the metrics", 0, "no answer");
  printf("metrics: load=%s memory_used=%s uptime=%s status=%s\n", demo.metricIds[0],
         demo.metricIds[1], demo.metricIds[2], demo.metricIds[3]);
  fflush(stdout);
  for (int round = 1; round <= seconds && !stopRequested; ++round) {
    if (!Push(client, round)) return 1;
    if (round < seconds) sleep(1);
  }
  return 0;
}

int main(int argc, char** argv) {
  /* A mistyped SECONDS must not end the run at once with success. */
  char* end = "";
  long seconds = 20;
  if (argc == 3) seconds = strtol(argv[2], &end, 10);
  if (argc < 2 || argc > 3 || *end != '\0' || end == argv[2] || seconds < 1 || seconds > 86400) {
    fprintf(stderr, "usage: %s CONFIG [SECONDS, 1 to 86400, default 20]\n", argv[0]);
    return 2;
  }
  signal(SIGINT, OnSignal);
  signal(SIGTERM, OnSignal);
  DAXO_LibInit();
  DAXO_Error err;
  DAXO_Client* client = DAXO_NewClient(argv[1], NULL, &err);
  if (client == NULL) {
    char why[512]; /* no OnLog can be set yet: the library says why in words */
    DAXO_ExplainConfig(argv[1], why, sizeof why);
    return Fail("reading the configuration", err, why);
  }
  /* Every callback is set before provisioning and connecting. */
  DAXO_ProvisionClientCallbackSet(client, OnProvision);
  DAXO_ConnectCallbackSet(client, OnConnect);
  DAXO_CreateSensorCallbackSet(client, OnCreateSensor);
  DAXO_CreateMetricsCallbackSet(client, OnCreateMetrics);
  DAXO_PushMetricValuesCallbackSet(client, OnPushed);
  DAXO_CreateSensorJobCallbackSet(client, OnSensorJob);
  DAXO_DeleteSensorJobCallbackSet(client, OnDeleteJob);
  int status = Run(client, (int)seconds);
  if (stopRequested) printf("stopped\n");
  DAXO_Disconnect(client);
  DAXO_DeleteClient(client); /* from this thread, never from a callback */
  DAXO_LibCleanup();
  return status;
}

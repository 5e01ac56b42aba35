/* A device program as it would run on a small Linux device: it reports the
 * machine's own readings to the agent once a second.
 *
 *   device_demo CONFIG [SECONDS]
 *
 * It provisions the client (only the first time: the identity is kept in
 * the certificate folder), connects, creates the sensor "system", defines
 * five metrics and pushes real readings with a timestamp every second, the
 * fifth metric ("sequence") numbering the pushes 1, 2, ... so that whoever
 * reads the agent's records can tell whether one is missing. It prints each
 * push and the time the agent took to answer, or, while the connection is
 * down, how many pushes wait in the push store (PushStore in CONFIG; without
 * one, a push made during an outage may be lost unnoticed). Sensor jobs the
 * agent sends meanwhile are printed. After the last push it waits (at most
 * 60 s) until the agent has answered every push, and ends with the line
 * "pushes: N made, ...". Ctrl-C stops it cleanly; a file store keeps what
 * is still waiting for the next run.
 *
 * Exit status: 0 when every push was answered (or Ctrl-C stopped it), 1
 * when a push failed, was dropped or is still unanswered, 2 for a wrong
 * command line. */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "daxo_client.h"

enum { kMetricCount = 5, kSequence = 4, kDrainSeconds = 60 };

/* What the callbacks tell the main thread. */
struct Demo {
  pthread_mutex_t mutex;
  pthread_cond_t changed;
  int provisioned, connected, sensorCreated;
  /* Answers for this run's sensor only: a file store may first send what an
   * earlier run left, for a sensor of its own. */
  int pushAnswers, pushErrors, dropped;
  DAXO_Error provisionResult, connectResult;
  DAXO_ApiError lastPushResult;
  int online;
  double offlineSinceMs;
  char sensorId[128];
  char metricIds[kMetricCount][128];
  int metricsDefined;
};

static struct Demo demo = {.mutex = PTHREAD_MUTEX_INITIALIZER, .changed = PTHREAD_COND_INITIALIZER};
static volatile sig_atomic_t stopRequested;

static const char* const kMatchingIds[kMetricCount] = {"load", "memory_used", "uptime", "status",
                                                       "sequence"};

static double NowMs(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

static void Changed(void) {
  pthread_cond_broadcast(&demo.changed);
  pthread_mutex_unlock(&demo.mutex);
}

/* Waits until *counter exceeds before, for at most ms milliseconds; 0 on
 * time-out. */
static int WaitForMoreMs(const int* counter, int before, double ms) {
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  long long ns = deadline.tv_nsec + (long long)(ms > 0 ? ms * 1e6 : 0);
  deadline.tv_sec += (time_t)(ns / 1000000000);
  deadline.tv_nsec = (long)(ns % 1000000000);
  pthread_mutex_lock(&demo.mutex);
  while (*counter <= before && !stopRequested) {
    if (pthread_cond_timedwait(&demo.changed, &demo.mutex, &deadline) != 0) break;
  }
  int done = *counter > before;
  pthread_mutex_unlock(&demo.mutex);
  return done;
}

static int WaitFor(const int* flag, int seconds) { return WaitForMoreMs(flag, 0, seconds * 1e3); }

static size_t Waiting(DAXO_Client* client) {
  size_t count = 0;
  DAXO_GetWaitingPushCount(client, &count);
  return count;
}

static void OnProvision(DAXO_Client* c, void* p, DAXO_Error err) {
  (void)c, (void)p;
  pthread_mutex_lock(&demo.mutex);
  demo.provisionResult = err;
  demo.provisioned = 1;
  Changed();
}

static void OnConnect(DAXO_Client* c, void* p, DAXO_Error err) {
  (void)p;
  pthread_mutex_lock(&demo.mutex);
  int again = demo.connected && err == DAXO_Error_Success && !demo.online;
  double outageMs = NowMs() - demo.offlineSinceMs;
  if (!demo.connected) demo.connectResult = err;
  demo.connected = 1;
  demo.online = demo.online || err == DAXO_Error_Success;
  Changed();
  if (again)
    printf(
        "connected again after %.1f s; the %zu push(es) waiting go out, oldest first, once "
        "the agent answers\n",
        outageMs / 1e3, Waiting(c));
  else if (err != DAXO_Error_Success)
    printf("connection refused: %s\n", DAXO_ErrorName(err));
  fflush(stdout);
}

static void OnDisconnect(DAXO_Client* c, void* p, DAXO_Error err) {
  (void)p;
  pthread_mutex_lock(&demo.mutex);
  int lost = demo.online;
  if (!demo.connected) demo.connectResult = err; /* the first connection never came up */
  demo.connected = 1;
  if (lost) demo.offlineSinceMs = NowMs();
  demo.online = 0;
  Changed();
  if (lost && err != DAXO_Error_Success)
    printf("connection lost (%s): the library reconnects by itself; %zu push(es) waiting\n",
           DAXO_ErrorName(err), Waiting(c));
  fflush(stdout);
}

static void OnCreateSensor(DAXO_Client* c, void* p, const char* name, const char* id,
                           DAXO_ApiError err) {
  (void)c, (void)p, (void)name;
  pthread_mutex_lock(&demo.mutex);
  if (err == DAXO_ApiError_NoError)
    snprintf(demo.sensorId, sizeof demo.sensorId, "%s", id);
  else
    fprintf(stderr, "sensor refused: %s\n", DAXO_ApiErrorName(err));
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
  if (err != DAXO_ApiError_NoError)
    fprintf(stderr, "metrics refused: %s\n", DAXO_ApiErrorName(err));
  demo.metricsDefined = 1;
  DAXO_DestroyCreatedMetrics(created); /* the record is ours */
  Changed();
}

static void OnPushed(DAXO_Client* c, void* p, const char* sensorId, DAXO_ApiError err) {
  (void)c, (void)p;
  pthread_mutex_lock(&demo.mutex);
  int ours = sensorId != NULL && strcmp(sensorId, demo.sensorId) == 0;
  if (ours) {
    demo.lastPushResult = err;
    demo.pushErrors += err != DAXO_ApiError_NoError;
    demo.pushAnswers++;
  }
  Changed();
  if (!ours) {
    printf("an earlier run's push to %s answered: %s\n", sensorId != NULL ? sensorId : "?",
           DAXO_ApiErrorName(err));
    fflush(stdout);
  }
}

static void OnPushDropped(DAXO_Client* c, void* p, const char* sensorId, int count,
                          DAXO_PushDropReason reason) {
  (void)c, (void)p;
  pthread_mutex_lock(&demo.mutex);
  demo.dropped += count;
  Changed();
  printf("the store dropped %d push(es) of %s (reason %d): they will never reach the agent\n",
         count, sensorId != NULL ? sensorId : "an earlier identity", (int)reason);
  fflush(stdout);
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
  DAXO_AddCustomMetricSchema(schema, "sequence", "push number", DAXO_ValueType_Integer,
                             "1, 2, ... in each run");
  DAXO_Error err = DAXO_CreateMetrics(client, demo.sensorId, schema);
  DAXO_DestroyMetricSchemaContainer(schema);
  return err == DAXO_Error_Success && WaitFor(&demo.metricsDefined, 10);
}

/* Push number round; waits for its answer until untilMs and prints it, or
 * what is waiting when none came. 0 when the push failed. */
static int Push(DAXO_Client* client, int round, double untilMs, size_t* mostWaiting) {
  struct Readings r = Read();
  DAXO_MetricValueContainer* values = DAXO_CreateMetricValueContainer();
  if (values == NULL) return 0;
  DAXO_AddDoubleMetricValue(values, r.load, demo.metricIds[0]);
  DAXO_AddIntegerMetricValue(values, r.memoryUsedKb, demo.metricIds[1]);
  DAXO_AddDoubleMetricValue(values, r.uptimeSeconds, demo.metricIds[2]);
  DAXO_AddStringMetricValue(values, r.status, demo.metricIds[3]);
  DAXO_AddIntegerMetricValue(values, round, demo.metricIds[kSequence]);
  DAXO_AddEpochTimeStamp(values, (uint64_t)time(NULL) * 1000u);
  double start = NowMs();
  DAXO_Error err = DAXO_PushMetricValues(client, demo.sensorId, values);
  DAXO_DestroyMetricValueContainer(values); /* the push keeps no reference */
  if (err != DAXO_Error_Success) {
    Fail("push", err, DAXO_ErrorName(err));
    return 0;
  }
  size_t waiting = Waiting(client);
  if (waiting > *mostWaiting) *mostWaiting = waiting;
  /* One printf a line: the callbacks print from other threads. */
  char readings[160];
  snprintf(readings, sizeof readings,
           "push %2d: load=%.2f memory_used=%lld kB uptime=%.0f s status=%s", round, r.load,
           r.memoryUsedKb, r.uptimeSeconds, r.status);
  /* The answers come in the order of the pushes, so this one is answered
   * once the round-th is in. */
  int answered = WaitForMoreMs(&demo.pushAnswers, round - 1, untilMs - NowMs());
  pthread_mutex_lock(&demo.mutex);
  DAXO_ApiError result = demo.lastPushResult;
  pthread_mutex_unlock(&demo.mutex);
  if (answered)
    printf("%s  agent answered %s in %.2f ms\n", readings, DAXO_ApiErrorName(result),
           NowMs() - start);
  else if (waiting > 0)
    printf("%s  no answer yet: %zu push(es) waiting in the store\n", readings, waiting);
  else
    printf("%s  no answer from the agent within %.0f s\n", readings, (untilMs - start) / 1e3);
  fflush(stdout);
  return 1;
}

/* After the last push: until the agent has answered every push this run
 * made, for at most kDrainSeconds. */
static void AwaitAnswers(DAXO_Client* client, int pushes) {
  pthread_mutex_lock(&demo.mutex);
  int answers = demo.pushAnswers;
  pthread_mutex_unlock(&demo.mutex);
  if (answers >= pushes || Waiting(client) == 0 || stopRequested) return;
  printf("waiting for the agent's answers to %zu push(es) in the store\n", Waiting(client));
  fflush(stdout);
  double deadline = NowMs() + kDrainSeconds * 1e3;
  while (answers < pushes && Waiting(client) > 0 && NowMs() < deadline && !stopRequested) {
    WaitForMoreMs(&demo.pushAnswers, answers, 1000);
    pthread_mutex_lock(&demo.mutex);
    answers = demo.pushAnswers;
    pthread_mutex_unlock(&demo.mutex);
  }
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
  /* Counted before the connection is up, when the store has just opened. */
  size_t leftover = Waiting(client);
  if (leftover > 0) printf("%zu push(es) left by an earlier run go out first\n", leftover);
  if (!WaitFor(&demo.connected, 20)) return Fail("connecting", 0, "no answer");
  err = demo.connectResult;
  if (err != DAXO_Error_Success) return Fail("connecting", err, DAXO_ErrorName(err));
  printf("connected\n");
  if (DAXO_CreateSensor(client, "system") != DAXO_Error_Success ||
      !WaitFor(&demo.sensorCreated, 10) || demo.sensorId[0] == '\0')
    return Fail("creating the sensor", 0, "no answer");
  printf("sensor \"system\" is %s\n", demo.sensorId);
  if (!DefineMetrics(client)) return Fail("defining the metrics", 0, "no answer");
  printf("metrics: load=%s memory_used=%s uptime=%s status=%s sequence=%s\n", demo.metricIds[0],
         demo.metricIds[1], demo.metricIds[2], demo.metricIds[3], demo.metricIds[kSequence]);
  fflush(stdout);
  /* Once a second on the clock, however long an answer takes. */
  double firstMs = NowMs();
  size_t mostWaiting = 0;
  int made = 0, failed = 0;
  for (int round = 1; round <= seconds && !stopRequested; ++round) {
    double dueMs = firstMs + (round - 1) * 1e3;
    for (double now = NowMs(); now < dueMs && !stopRequested; now = NowMs()) {
      double ns = (dueMs - now) * 1e6;
      struct timespec pause = {0, ns < 999999999 ? (long)ns : 999999999};
      nanosleep(&pause, NULL);
    }
    if (stopRequested) break;
    if (!Push(client, round, round < seconds ? dueMs + 1e3 : NowMs() + 5e3, &mostWaiting)) {
      failed = 1;
      break;
    }
    made = round;
  }
  AwaitAnswers(client, made);
  size_t waiting = Waiting(client);
  pthread_mutex_lock(&demo.mutex);
  int answers = demo.pushAnswers, errors = demo.pushErrors, dropped = demo.dropped;
  pthread_mutex_unlock(&demo.mutex);
  printf(
      "pushes: %d made, %d answered (%d with an error), %d dropped, %zu still waiting; "
      "at most %zu waited at once\n",
      made, answers, errors, dropped, waiting, mostWaiting);
  if (waiting > 0 && stopRequested)
    printf("the store keeps the %zu waiting push(es) for the next run\n", waiting);
  fflush(stdout);
  if (failed || dropped > 0) return 1;
  return stopRequested || (answers >= made && waiting == 0) ? 0 : 1;
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
  /* sigaction, not signal: in strict C11 signal() resets the handler after
   * the first delivery, and a Ctrl-C in a script that also forwards it
   * delivers two. */
  struct sigaction stop = {.sa_handler = OnSignal};
  sigemptyset(&stop.sa_mask);
  sigaction(SIGINT, &stop, NULL);
  sigaction(SIGTERM, &stop, NULL);
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
  DAXO_DisconnectCallbackSet(client, OnDisconnect);
  DAXO_PushDroppedCallbackSet(client, OnPushDropped);
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

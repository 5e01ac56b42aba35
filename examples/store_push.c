/*
 * store_push: numbered values that survive outages, with the push store on.
 *
 *   store_push CONFIG SENSOR_ID METRIC_ID FIRST COUNT INTERVAL_MS
 *
 * CONFIG turns the store on, for example with
 *
 *   PushStore /var/lib/daxo/pushes.db
 *
 * The program connects a client provisioned before (by minimal_push, say)
 * and pushes COUNT values (FIRST, FIRST + 1, ...) to the integer metric
 * METRIC_ID of sensor SENSOR_ID, one every INTERVAL_MS milliseconds, whether
 * the connection is
 * up or not: the store keeps each push until the agent has answered it, and
 * sends what it keeps once the agent can hear it again. It prints "kept N"
 * for each push the store took, then waits (up to 120 s) until nothing is
 * waiting. With a file as the store, a program killed half way sends what it
 * had kept at its next start.
 *
 * Exit status: 0 when every push was answered, 1 otherwise, 2 for a wrong
 * command line.
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep */

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "daxo_client.h"

static void Sleep(long ms) {
  struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&pause, NULL);
}

/* Runs on the thread whose call dropped the pushes; the program only counts. */
static void OnPushDropped(DAXO_Client* client, void* dropped, const char* sensorId, int count,
                          DAXO_PushDropReason reason) {
  (void)client;
  fprintf(stderr, "dropped %d push(es) of %s (reason %d)\n", count,
          sensorId != NULL ? sensorId : "?", (int)reason);
  *(int*)dropped += count;
}

static int Push(DAXO_Client* client, const char* sensorId, const char* metricId, long long n) {
  DAXO_MetricValueContainer* values = DAXO_CreateMetricValueContainer();
  DAXO_Error err =
      values != NULL ? DAXO_AddIntegerMetricValue(values, n, metricId) : DAXO_Error_NoMemory;
  if (err == DAXO_Error_Success) err = DAXO_PushMetricValues(client, sensorId, values);
  DAXO_DestroyMetricValueContainer(values);
  if (err != DAXO_Error_Success) {
    fprintf(stderr, "push %lld: %s\n", n, DAXO_ErrorName(err));
    return -1;
  }
  printf("kept %lld\n", n);
  fflush(stdout);
  return 0;
}

int main(int argc, char** argv) {
  if (argc != 7) {
    fprintf(stderr, "usage: %s CONFIG SENSOR_ID METRIC_ID FIRST COUNT INTERVAL_MS\n", argv[0]);
    return 2;
  }
  long long first = atoll(argv[4]), count = atoll(argv[5]);
  long interval = atol(argv[6]);
  int dropped = 0, failed = 0;
  size_t waiting = 0;
  DAXO_Error err;
  DAXO_LibInit();
  DAXO_Client* client = DAXO_NewClient(argv[1], &dropped, &err);
  if (client == NULL) {
    char why[512];
    DAXO_ExplainConfig(argv[1], why, sizeof why);
    fprintf(stderr, "%s: %s\n", DAXO_ErrorName(err), why);
    return 1;
  }
  DAXO_PushDroppedCallbackSet(client, OnPushDropped);
  /* The identity in CertFolder: this program does not provision a new one. */
  err = DAXO_ProvisionClient(client);
  if (err != DAXO_Error_AlreadyProvisioned) {
    fprintf(stderr, "not provisioned (%s): run minimal_push first\n", DAXO_ErrorName(err));
    DAXO_DeleteClient(client);
    return 1;
  }
  /* The store opens here, even when the broker cannot be reached: pushes
   * are kept from now on, and the connection is asked for again below. */
  err = DAXO_Connect(client);
  if (err == DAXO_Error_PushStoreUnusable || err == DAXO_Error_InvalidArguments) {
    fprintf(stderr, "DAXO_Connect: %s\n", DAXO_ErrorName(err));
    DAXO_DeleteClient(client);
    return 1;
  }
  for (long long n = first; n < first + count; ++n) {
    if (err != DAXO_Error_Success && (n - first) % (1000 / (interval + 1) + 1) == 0)
      err = DAXO_Connect(client);
    failed |= Push(client, argv[2], argv[3], n);
    Sleep(interval);
  }
  for (int tenths = 0; tenths < 1200; ++tenths) {
    if (err != DAXO_Error_Success && tenths % 10 == 0) err = DAXO_Connect(client);
    DAXO_GetWaitingPushCount(client, &waiting);
    if (waiting == 0) break;
    Sleep(100);
  }
  printf("waiting %zu, dropped %d\n", waiting, dropped);
  DAXO_DeleteClient(client);
  DAXO_LibCleanup();
  return failed || waiting != 0 || dropped != 0 ? 1 : 0;
}

/* An application whose own functions share names with the library's
 * internal exports. The library must keep calling its own definitions:
 * a program that happens to have a LoadConfig of its own must not have it
 * called from DAXO_NewClient. */
#include <stdio.h>

#include "daxo_client.h"

#define EXPECT(cond) \
  if (!(cond)) return fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond), 1

static int loadConfigCalls = 0;
static int watchThreadCalls = 0;

DAXO_Error LoadConfig(DAXO_Client* client, const char* confFile) {
  (void)client;
  (void)confFile;
  ++loadConfigCalls;
  return DAXO_Error_ConfigReadFailed;
}

int StartCertificateCheckingThread(DAXO_Client* client) {
  (void)client;
  ++watchThreadCalls;
  return 0;
}

int main(int argc, char** argv) {
  DAXO_Error err = DAXO_Error_Unknown;
  EXPECT(argc == 2 && DAXO_LibInit() == DAXO_Error_Success);
  DAXO_Client* client = DAXO_NewClient(argv[1], NULL, &err);
  EXPECT(loadConfigCalls == 0 && watchThreadCalls == 0);
  EXPECT(client != NULL && err == DAXO_Error_Success);
  EXPECT(DAXO_DeleteClient(client) == DAXO_Error_Success);
  EXPECT(DAXO_LibCleanup() == DAXO_Error_Success);
  return 0;
}

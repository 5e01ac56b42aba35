/* The lifecycle a C application goes through, compiled as C11. */
#include <stdio.h>
#include <string.h>

#include "daxo_client.h"

static int logLines;

static void OnLog(DAXO_Client* client, const char* line, void* param) {
  (void)client;
  (void)line;
  (void)param;
  ++logLines;
}

static void OnConnect(DAXO_Client* client, void* param, DAXO_Error err) {
  (void)client;
  (void)param;
  (void)err;
}

#define EXPECT(cond)                                          \
  do {                                                        \
    if (!(cond)) {                                            \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
      return 1;                                               \
    }                                                         \
  } while (0)

int main(int argc, char** argv) {
  int marker = 0;
  DAXO_Error err = DAXO_Error_Unknown;
  DAXO_Client* client;

  EXPECT(argc == 2);
  EXPECT(DAXO_LibInit() == DAXO_Error_Success);

  EXPECT(DAXO_NewClient("", &marker, &err) == NULL);
  EXPECT(err == DAXO_Error_WrongConfigName);

  client = DAXO_NewClient(argv[1], &marker, &err);
  EXPECT(client != NULL);
  EXPECT(err == DAXO_Error_Success);
  EXPECT(DAXO_GetClientId(client) == NULL);
  EXPECT(DAXO_LogCallbackSet(client, OnLog) == DAXO_Error_Success);
  EXPECT(DAXO_ConnectCallbackSet(client, OnConnect) == DAXO_Error_Success);
  EXPECT(DAXO_ConnectCallbackSet(NULL, OnConnect) == DAXO_Error_InvalidArguments);
  EXPECT(DAXO_Disconnect(client) == DAXO_Error_Success);
  EXPECT(DAXO_DeleteClient(client) == DAXO_Error_Success);
  EXPECT(DAXO_DeleteClient(NULL) == DAXO_Error_InvalidArguments);

  /* The numbers are part of the interface: spot-check the odd ones. */
  EXPECT(DAXO_Error_CertifcateFolderPath == 33 && DAXO_Error_CertificateRequest == 39);
  EXPECT(DAXO_ApiError_NoError == -1 && DAXO_ApiError_ForbiddendAccess == 18);

  EXPECT(DAXO_LibCleanup() == DAXO_Error_Success);
  puts("C client lifecycle: ok");
  return 0;
}

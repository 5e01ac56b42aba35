/* The lifecycle a C application goes through, compiled as C11. */
#include <stdio.h>
#include <string.h>

#include "daxo_client.h"

#define EXPECT(cond) \
  if (!(cond)) return fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond), 1

int main(int argc, char** argv) {
  DAXO_Error err = DAXO_Error_Unknown;
  EXPECT(argc == 2 && DAXO_LibInit() == DAXO_Error_Success);
  EXPECT(DAXO_NewClient(NULL, NULL, &err) == NULL && err == DAXO_Error_InvalidArguments);
  EXPECT(DAXO_NewClient("", NULL, &err) == NULL && err == DAXO_Error_WrongConfigName);
  char why[256];
  EXPECT(DAXO_ExplainConfig(argv[1], why, sizeof why) == DAXO_Error_Success &&
         strstr(why, "no problem") != NULL);
  DAXO_Client* client = DAXO_NewClient(argv[1], NULL, &err);
  EXPECT(client != NULL && err == DAXO_Error_Success && DAXO_GetClientId(client) == NULL);
  EXPECT(DAXO_Disconnect(client) == DAXO_Error_Success);
  EXPECT(DAXO_DeleteClient(client) == DAXO_Error_Success);
  /* The numbers are part of the interface: spot-check the odd ones. */
  EXPECT(DAXO_Error_CertifcateFolderPath == 33 && DAXO_Error_CertificateRequest == 39);
  EXPECT(DAXO_ApiError_NoError == -1 && DAXO_ApiError_ForbiddendAccess == 18);
  EXPECT(DAXO_Error_ConnectionRefused == 40 && DAXO_Error_ClientCertificateRefused == 44);
  for (int code = -1; code <= 48; ++code)
    EXPECT(!strstr(DAXO_ErrorName((DAXO_Error)code), "(unknown)") == (code < 48));
  EXPECT(DAXO_LibCleanup() == DAXO_Error_Success);
  return 0;
}

#!/bin/sh
# The shared object exports the library's names unmangled, keeps the
# transport wrappers private, and exports no C++ symbols.
set -eu
lib=$1
symbols=$(nm -D --defined-only "$lib" | awk '{print $3}')
status=0
for name in DAXO_LibInit DAXO_LibCleanup DAXO_NewClient DAXO_DeleteClient DAXO_GetClientId \
    DAXO_Disconnect DAXO_LogCallbackSet DAXO_DeprovisionClientCallbackSet \
    NewClientInternal LoadConfig StrnDup GetFileContent ParseErrorMessage LogParseErrorMessage \
    GetApiErrorCode ConvertApiError LogMessage LogCallback CreateMosquittoClient \
    DestroyMosquittoClient MosquittoLibInit MosquittoLibCleanup StartCertificateCheckingThread \
    StopCertificateCheckingThread CertificateCheckingThread; do
  echo "$symbols" | grep -qx "$name" || { echo "missing export: $name"; status=1; }
done
for name in MosquittoLoopStart MosquittoPublish MosquittMessageCallbackSet \
    MosquittoPublishCallbackSet; do
  if echo "$symbols" | grep -q "$name"; then echo "private symbol exported: $name"; status=1; fi
done
mangled=$(echo "$symbols" | grep '^_Z' || true)
if [ -n "$mangled" ]; then echo "C++ symbols exported:"; echo "$mangled"; status=1; fi
exit $status

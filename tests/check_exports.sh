#!/bin/sh
# The shared object exports the library's names unmangled, keeps the
# transport wrappers private, and exports no C++ symbols.
symbols=$(nm -D --defined-only "$1" | awk '{print $3}')
for name in DAXO_NewClient DAXO_DeprovisionClientCallbackSet NewClientInternal LoadConfig \
    ParseErrorMessage CreateMosquittoClient StartCertificateCheckingThread \
    DAXO_PushDroppedCallbackSet DAXO_GetWaitingPushCount DAXO_ResetIdentity; do
  echo "$symbols" | grep -qx "$name" || { echo "missing export: $name"; exit 1; }
done
! echo "$symbols" | grep -E '^_Z|^Mosquitto(LoopStart|Publish)'

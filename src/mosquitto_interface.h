// The table of MQTT operations behind which every MQTT instance lives, so
// that tests can replace libmosquitto with a transport of their own.
#ifndef DAXO_MOSQUITTO_INTERFACE_H
#define DAXO_MOSQUITTO_INTERFACE_H

#include <mosquitto.h>

#include "daxo_client.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct MosquittoInterfaceTag MosquittoInterface;

typedef void (*MosquittoLogHandler)(struct mosquitto*, void* obj, int level, const char* str);
typedef void (*MosquittoResultHandler)(struct mosquitto*, void* obj, int result);
typedef void (*MosquittoMessageHandler)(struct mosquitto*, void* obj,
                                        const struct mosquitto_message* message);
typedef void (*MosquittoSubscribeHandler)(struct mosquitto*, void* obj, int mid, int qosCount,
                                          const int* grantedQos);
typedef void (*MosquittoPublishHandler)(struct mosquitto*, void* obj, int mid);
typedef int (*MosquittoPasswordCallback)(char* buf, int size, int rwflag, void* userdata);

typedef int (*MosquittoLoopStartFunction)(MosquittoInterface*);
typedef int (*MosquittoLoopStopFunction)(MosquittoInterface*, int force);
typedef int (*MosquittoTlsSetFunction)(MosquittoInterface*, const char* caFile,
                                       const char* caPath, const char* certFile,
                                       const char* keyFile, MosquittoPasswordCallback pwCallback);
typedef int (*MosquittoTlsInsecureSetFunction)(MosquittoInterface*, int value);
typedef int (*MosquittoConnectAsyncFunction)(MosquittoInterface*, const char* host, int port,
                                             int keepAlive);
typedef int (*MosquittoDisconnectFunction)(MosquittoInterface*);
typedef int (*MosquittoSubscribeFunction)(MosquittoInterface*, int* mid, const char* sub,
                                          int qos);
typedef int (*MosquittoPublishFunction)(MosquittoInterface*, int* mid, const char* topic,
                                        int payloadLen, const void* payload, int qos,
                                        int retain);
typedef int (*MosquittoReconnectDelaySetFunction)(MosquittoInterface*,
                                                  unsigned int reconnectDelay,
                                                  unsigned int reconnectDelayMax,
                                                  int reconnectExponentialBackoff);
typedef void (*MosquittoLogCallbackSetFunction)(MosquittoInterface*, MosquittoLogHandler);
typedef void (*MosquittoConnectCallbackSetFunction)(MosquittoInterface*, MosquittoResultHandler);
typedef void (*MosquittoDisconnectConnectCallbackSetFunction)(MosquittoInterface*,
                                                              MosquittoResultHandler);
typedef void (*MosquittMessageCallbackSetFunction)(MosquittoInterface*, MosquittoMessageHandler);
typedef void (*MosquittoSubscribeCallbackSetFunction)(MosquittoInterface*,
                                                      MosquittoSubscribeHandler);
typedef void (*MosquittoPublishCallbackSetFunction)(MosquittoInterface*, MosquittoPublishHandler);

struct MosquittoInterfaceTag {
  MosquittoLoopStartFunction mosquittoLoopStartFunction;
  MosquittoLoopStopFunction mosquittoLoopStopFunction;
  MosquittoTlsSetFunction mosquittoTlsSetFunction;
  MosquittoTlsInsecureSetFunction mosquittoTlsInsecureSetFunction;
  MosquittoConnectAsyncFunction mosquittoConnectAsyncFunction;
  MosquittoDisconnectFunction mosquittoDisconnectFunction;
  MosquittoSubscribeFunction mosquittoSubscribeFunction;
  MosquittoPublishFunction mosquittoPublishFunction;
  MosquittoReconnectDelaySetFunction mosquittoReconnectDelaySetFunction;
  MosquittoLogCallbackSetFunction mosquittoLogCallbackSetFunction;
  MosquittoConnectCallbackSetFunction mosquittoConnectCallbackSetFunction;
  MosquittoDisconnectConnectCallbackSetFunction mosquittoDisconnectConnectCallbackSetFunction;
  MosquittMessageCallbackSetFunction mosquittMessageCallbackSetFunction;
  MosquittoSubscribeCallbackSetFunction mosquittoSubscribeCallbackSetFunction;
  MosquittoPublishCallbackSetFunction mosquittoPublishCallbackSetFunction;
  void* mosq;  // struct mosquitto* of this instance
};

// Makes an MQTT instance. Given a record, only its function fields are
// (re)filled; given null, a new record and libmosquitto handle are made.
// Returns null on failure, the reason in errno.
typedef MosquittoInterface* (*CreateMosquittoClientFunction)(MosquittoInterface* mosqInterface,
                                                             const char* id, int cleanSession,
                                                             void* callBackParam);
// Releases an instance made by the matching factory; accepts null.
typedef void (*DestroyMosquittoClientFunction)(MosquittoInterface* mosqInterface);

DAXO_EXPORT MosquittoInterface* CreateMosquittoClient(MosquittoInterface* mosqInterface,
                                                      const char* id, int cleanSession,
                                                      void* callBackParam) DAXO_NOEXCEPT;
DAXO_EXPORT void DestroyMosquittoClient(MosquittoInterface* mosqInterface) DAXO_NOEXCEPT;
DAXO_EXPORT void MosquittoLibInit(void) DAXO_NOEXCEPT;
DAXO_EXPORT void MosquittoLibCleanup(void) DAXO_NOEXCEPT;

#ifdef __cplusplus
}

namespace daxo {

// The socket of an instance made by CreateMosquittoClient: none (between
// attempts, or its thread has ended), open (connecting, shaking hands or
// connected), or failed (a connection that will never complete; *errnum,
// when given, receives its errno, 0 when unknown). Unknown for any other
// transport. Waits up to waitMs for a connection that is still being made to
// succeed or fail.
enum class SocketState { kUnknown, kNone, kOpen, kFailed };
SocketState MosquittoSocketState(MosquittoInterface* mi, int waitMs,
                                 int* errnum = nullptr) noexcept;

}  // namespace daxo
#endif

#endif

// The production side of MosquittoInterface: each entry forwards to
// libmosquitto with the instance's handle and returns its result unchanged.
#include <poll.h>
#include <sys/socket.h>

#include <cstdlib>
#include <new>

#include "mosquitto_interface.h"

namespace {

mosquitto* Handle(MosquittoInterface* mi) noexcept { return static_cast<mosquitto*>(mi->mosq); }

int MosquittoLoopStart(MosquittoInterface* mi) noexcept {
  return mosquitto_loop_start(Handle(mi));
}

int MosquittoLoopStop(MosquittoInterface* mi, int force) noexcept {
  return mosquitto_loop_stop(Handle(mi), force != 0);
}

int MosquittoTlsSet(MosquittoInterface* mi, const char* caFile, const char* caPath,
                    const char* certFile, const char* keyFile,
                    MosquittoPasswordCallback pwCallback) noexcept {
  return mosquitto_tls_set(Handle(mi), caFile, caPath, certFile, keyFile, pwCallback);
}

int MosquittoTlsInsecureSet(MosquittoInterface* mi, int value) noexcept {
  return mosquitto_tls_insecure_set(Handle(mi), value != 0);
}

int MosquittoConnectAsync(MosquittoInterface* mi, const char* host, int port,
                          int keepAlive) noexcept {
  return mosquitto_connect_async(Handle(mi), host, port, keepAlive);
}

int MosquittoDisconnect(MosquittoInterface* mi) noexcept {
  return mosquitto_disconnect(Handle(mi));
}

int MosquittoSubscribe(MosquittoInterface* mi, int* mid, const char* sub, int qos) noexcept {
  return mosquitto_subscribe(Handle(mi), mid, sub, qos);
}

int MosquittoPublish(MosquittoInterface* mi, int* mid, const char* topic, int payloadLen,
                     const void* payload, int qos, int retain) noexcept {
  return mosquitto_publish(Handle(mi), mid, topic, payloadLen, payload, qos, retain != 0);
}

int MosquittoReconnectDelaySet(MosquittoInterface* mi, unsigned int reconnectDelay,
                               unsigned int reconnectDelayMax,
                               int reconnectExponentialBackoff) noexcept {
  return mosquitto_reconnect_delay_set(Handle(mi), reconnectDelay, reconnectDelayMax,
                                       reconnectExponentialBackoff != 0);
}

void MosquittoLogCallbackSet(MosquittoInterface* mi, MosquittoLogHandler handler) noexcept {
  mosquitto_log_callback_set(Handle(mi), handler);
}

void MosquittoConnectCallbackSet(MosquittoInterface* mi, MosquittoResultHandler handler) noexcept {
  mosquitto_connect_callback_set(Handle(mi), handler);
}

void MosquittoDisconnectConnectCallbackSet(MosquittoInterface* mi,
                                           MosquittoResultHandler handler) noexcept {
  mosquitto_disconnect_callback_set(Handle(mi), handler);
}

void MosquittMessageCallbackSet(MosquittoInterface* mi, MosquittoMessageHandler handler) noexcept {
  mosquitto_message_callback_set(Handle(mi), handler);
}

void MosquittoSubscribeCallbackSet(MosquittoInterface* mi,
                                   MosquittoSubscribeHandler handler) noexcept {
  mosquitto_subscribe_callback_set(Handle(mi), handler);
}

void MosquittoPublishCallbackSet(MosquittoInterface* mi, MosquittoPublishHandler handler) noexcept {
  mosquitto_publish_callback_set(Handle(mi), handler);
}

}  // namespace

extern "C" {

MosquittoInterface* CreateMosquittoClient(MosquittoInterface* mosqInterface, const char* id,
                                          int cleanSession, void* callBackParam) noexcept {
  MosquittoInterface* mi = mosqInterface;
  if (mi == nullptr) {
    mi = static_cast<MosquittoInterface*>(calloc(1, sizeof *mi));
    if (mi == nullptr) return nullptr;
    mi->mosq = mosquitto_new(id, cleanSession != 0, callBackParam);
    if (mi->mosq == nullptr) {
      free(mi);  // errno still holds mosquitto_new's reason: free leaves it alone
      return nullptr;
    }
    // A request and its reply are single small packets: without this, each
    // waits on Nagle's algorithm for the peer's delayed acknowledgement.
    mosquitto_int_option(Handle(mi), MOSQ_OPT_TCP_NODELAY, 1);
  }
  *mi = MosquittoInterface{
      MosquittoLoopStart,          MosquittoLoopStop,
      MosquittoTlsSet,             MosquittoTlsInsecureSet,
      MosquittoConnectAsync,       MosquittoDisconnect,
      MosquittoSubscribe,          MosquittoPublish,
      MosquittoReconnectDelaySet,  MosquittoLogCallbackSet,
      MosquittoConnectCallbackSet, MosquittoDisconnectConnectCallbackSet,
      MosquittMessageCallbackSet,  MosquittoSubscribeCallbackSet,
      MosquittoPublishCallbackSet, mi->mosq,
  };
  return mi;
}

void DestroyMosquittoClient(MosquittoInterface* mosqInterface) noexcept {
  if (mosqInterface == nullptr) return;
  if (mosqInterface->mosq != nullptr) mosquitto_destroy(Handle(mosqInterface));
  free(mosqInterface);
}

}  // extern "C"

namespace daxo {

// libmosquitto reports neither case: a socket whose connection failed (it
// then spins on it for ever) and one still connecting or shaking hands.
SocketState MosquittoSocketState(MosquittoInterface* mi, int waitMs, int* errnum) noexcept {
  if (mi == nullptr || mi->mosquittoLoopStartFunction != MosquittoLoopStart || mi->mosq == nullptr)
    return SocketState::kUnknown;
  int fd = mosquitto_socket(Handle(mi));
  if (fd < 0) return SocketState::kNone;
  pollfd probe{fd, POLLOUT, 0};
  if (poll(&probe, 1, waitMs) != 1 || (probe.revents & (POLLHUP | POLLERR)) == 0)
    return SocketState::kOpen;
  // 0 when libmosquitto's TLS step has already read the error off the socket.
  socklen_t size = sizeof *errnum;
  if (errnum != nullptr && getsockopt(fd, SOL_SOCKET, SO_ERROR, errnum, &size) != 0) *errnum = 0;
  return SocketState::kFailed;
}

}  // namespace daxo

extern "C" {

void MosquittoLibInit(void) noexcept { mosquitto_lib_init(); }

void MosquittoLibCleanup(void) noexcept { mosquitto_lib_cleanup(); }

}  // extern "C"

// Why a connection failed. Every failed attempt records its most specific
// code on its connection's watch, for the callback that reports the outage,
// and is named in one line with the host and port. An outage names each
// reason once: a broker that stays away for an hour, tried every second,
// gives one line, not 3,600.
#include <mosquitto.h>
#include <netdb.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "daxo_internal.h"

namespace {

int Read(const int& field) noexcept { return __atomic_load_n(&field, __ATOMIC_ACQUIRE); }
void Write(int& field, int value) noexcept { __atomic_store_n(&field, value, __ATOMIC_RELEASE); }

DAXO_Error Note(const daxo::Endpoint& at, DAXO_Error err, const char* what,
                const char* detail = "") noexcept {
  Write(at.watch.failure, err);
  if (__atomic_exchange_n(&at.watch.named, err, __ATOMIC_ACQ_REL) == err) return err;
  daxo::LogFormat(at.client, "Connection to %s:%d failed: %s%s%s (%s)", at.client->mqttHost,
                  at.port, what, detail[0] != '\0' ? ": " : "", detail, DAXO_ErrorName(err));
  return err;
}

const char* ErrnoText(int errnum, char (&buffer)[128]) noexcept {
  return errnum != 0 ? strerror_r(errnum, buffer, sizeof buffer) : "";
}

bool CertificateAlert(std::string_view reason) noexcept {
  return reason.find("alert") != std::string_view::npos &&
         (reason.find("certificate") != std::string_view::npos ||
          reason.find("unknown ca") != std::string_view::npos);
}

// A TLS failure, named by the line libmosquitto logged for it if any. It
// names a failed handshake (MOSQ_ERR_TLS); a read or write that fails after
// the client's side of the handshake is done leaves only EPROTO: the broker
// ended the session, and on the main connection that is the broker refusing
// the certificate the client presented (TLS 1.3 checks it after the
// handshake, and its alert is often lost with the connection).
DAXO_Error NoteTlsFailure(const daxo::Endpoint& at, bool afterHandshake) noexcept {
  if (auto seen = static_cast<DAXO_Error>(Read(at.watch.tlsFailure)); seen != 0) {
    Write(at.watch.failure, seen);
    return seen;
  }
  if (at.clientCertificate && afterHandshake)
    return Note(at, DAXO_Error_ClientCertificateRefused,
                "the broker ended the TLS session after the handshake: it refused the client's "
                "certificate");
  return Note(at, DAXO_Error_TlsConnection, "TLS failure");
}

}  // namespace

namespace daxo {

Endpoint MainEndpoint(DAXO_Client* client) noexcept {
  return {client, client->mainWatch, client->mqttPort, true};
}

Endpoint ProvisionEndpoint(DAXO_Client* client) noexcept {
  return {client, client->provisionWatch, client->mqttProvisionPort, false};
}

void ForgetFailures(ConnectionWatch& watch) noexcept {
  Write(watch.failure, 0);
  Write(watch.named, 0);
}

DAXO_Error NoteStartFailure(const Endpoint& at, int rc, int errnum) noexcept {
  char text[128];
  switch (rc) {
    case MOSQ_ERR_EAI:
      return Note(at, DAXO_Error_HostNotFound, "the host name cannot be resolved",
                  errnum < 0 ? gai_strerror(errnum) : "");
    case MOSQ_ERR_TLS:
      return NoteTlsFailure(at, false);
    case MOSQ_ERR_ERRNO:
      if (errnum == EPROTO) return NoteTlsFailure(at, true);
      if (errnum == ECONNREFUSED || errnum == EHOSTUNREACH || errnum == ENETUNREACH)
        return Note(at, DAXO_Error_ConnectionRefused, "no connection", ErrnoText(errnum, text));
      return Note(at, DAXO_Error_Errno, "the connection could not be made",
                  ErrnoText(errnum, text));
    default:
      return Note(at, ConnectResultToError(rc), "the connection could not be made",
                  mosquitto_strerror(rc));
  }
}

void NoteLoopFailure(const Endpoint& at, DAXO_Error err) noexcept {
  Note(at, err, "its network thread could not start");
}

void NoteSocketFailure(const Endpoint& at, int errnum) noexcept {
  char text[128];
  Note(at, DAXO_Error_ConnectionRefused, "no connection",
       errnum != 0 ? ErrnoText(errnum, text) : "refused or unreachable");
}

DAXO_Error NoteRefusal(const Endpoint& at, int connackCode) noexcept {
  char what[48];
  snprintf(what, sizeof what, "refused by the broker with CONNACK %d", connackCode);
  return Note(at, ConvertConnackCode(connackCode), what, mosquitto_connack_string(connackCode));
}

void NoteClosedBeforeAccepted(const Endpoint& at, int rc) noexcept {
  if (errno == EPROTO || rc == MOSQ_ERR_TLS) {
    NoteTlsFailure(at, rc != MOSQ_ERR_TLS);
    return;
  }
  // A reason already named, the socket's for one, stays.
  if (Read(at.watch.failure) != 0) return;
  Note(at, DAXO_Error_ConnectionFailed, "closed before the broker accepted it",
       mosquitto_strerror(rc));
}

// libmosquitto: "OpenSSL Error[0]: error:0A000086:SSL routines::certificate verify failed".
void NoteTransportLine(const Endpoint& at, const char* line) noexcept {
  if (strncmp(line, "OpenSSL Error", 13) != 0) return;
  const char* reason = strrchr(line, ':') + 1;
  std::string_view why(reason);
  DAXO_Error err = DAXO_Error_TlsConnection;
  const char* what = "TLS failure";
  if (why.find("certificate verify failed") != std::string_view::npos) {
    err = DAXO_Error_BrokerCertificateRefused;
    what = "the client refused the broker's certificate";
  } else if (at.clientCertificate && CertificateAlert(why)) {
    err = DAXO_Error_ClientCertificateRefused;
    what = "the broker refused the client's certificate";
  }
  // The first line of an attempt is its reason; later ones follow from it.
  int none = 0;
  if (__atomic_compare_exchange_n(&at.watch.tlsFailure, &none, err, false, __ATOMIC_ACQ_REL,
                                  __ATOMIC_ACQUIRE))
    Note(at, err, what, reason);
}

DAXO_Error OutageReason(const Endpoint& at, long long waitedMs) noexcept {
  if (auto failure = static_cast<DAXO_Error>(Read(at.watch.failure)); failure != 0) return failure;
  char what[48];
  snprintf(what, sizeof what, "no answer within %lld s", waitedMs / 1000);
  return Note(at, DAXO_Error_ConnectionTimeout, what);
}

}  // namespace daxo

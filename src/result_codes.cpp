// Conversions between the agent's codes, the broker's codes and DAXO_Error,
// and the reader of the agent's error replies.
#include <cerrno>

#include "c_handles.h"
#include "daxo_internal.h"
#include "string_utils.h"

extern "C" DAXO_ApiError GetApiErrorCode(int err) noexcept {
  if (err >= DAXO_ApiError_NoBackendConnection && err <= DAXO_ApiError_PushValuesFailed)
    return static_cast<DAXO_ApiError>(err);
  return DAXO_ApiError_UnknownError;
}

extern "C" DAXO_Error ConvertApiError(int err) noexcept {
  switch (err) {
    case DAXO_ApiError_NoBackendConnection:
      return DAXO_Error_NoBackendConnection;
    case DAXO_ApiError_CertificateFormatError:
    case DAXO_ApiError_CertificateIsEmptyError:
    case DAXO_ApiError_CertificateWithoutCommonName:
    case DAXO_ApiError_InvalidClientName:
      return DAXO_Error_CertificateRequest;
    default:
      return DAXO_Error_Unknown;
  }
}

extern "C" DAXO_Error ConvertConnackCode(int connackCode) noexcept {
  switch (connackCode) {
    case 1:
      return DAXO_Error_WrongProtocol;
    case 2:
      return DAXO_Error_WrongIdentifier;
    case 3:
      return DAXO_Error_ServerUnavailable;
    default:
      return DAXO_Error_Unknown;
  }
}

namespace daxo {

DAXO_Error ConnectResultToError(int rc) noexcept {
  switch (rc) {
    case MOSQ_ERR_SUCCESS:
      return DAXO_Error_Success;
    case MOSQ_ERR_INVAL:
      return DAXO_Error_InvalidArguments;
    case MOSQ_ERR_TLS:
      return DAXO_Error_TlsConnection;
    case MOSQ_ERR_ERRNO:
      return DAXO_Error_Errno;
    case MOSQ_ERR_EAI:
      return DAXO_Error_HostNotFound;
    default:
      return DAXO_Error_Unknown;
  }
}

DAXO_Error LoopStartResultToError(int rc) noexcept {
  switch (rc) {
    case MOSQ_ERR_SUCCESS:
      return DAXO_Error_Success;
    case MOSQ_ERR_INVAL:
      return DAXO_Error_InvalidArguments;
    case MOSQ_ERR_NOT_SUPPORTED:
      return DAXO_Error_NoThreadSupport;
    default:
      return DAXO_Error_Unknown;
  }
}

DAXO_Error PublishResultToError(int rc) noexcept {
  switch (rc) {
    case MOSQ_ERR_PROTOCOL:
      return DAXO_Error_WrongProtocol;
    case MOSQ_ERR_PAYLOAD_SIZE:
      return DAXO_Error_PayloadSize;
    default:
      return SubscribeResultToError(rc);
  }
}

DAXO_Error SubscribeResultToError(int rc) noexcept {
  switch (rc) {
    case MOSQ_ERR_SUCCESS:
      return DAXO_Error_Success;
    case MOSQ_ERR_NOMEM:
      return DAXO_Error_NoMemory;
    case MOSQ_ERR_INVAL:
      return DAXO_Error_InvalidArguments;
    case MOSQ_ERR_NO_CONN:
      return DAXO_Error_NoConnectionToServer;
    default:
      return DAXO_Error_Unknown;
  }
}

}  // namespace daxo

namespace {

bool ReadCode(json_object* reply, int* err) noexcept {
  json_object* member = nullptr;
  if (!json_object_object_get_ex(reply, "errorcode", &member)) {
    *err = 0;
    return false;
  }
  errno = 0;
  *err = json_object_get_int(member);
  return errno == 0;
}

bool ReadText(json_object* reply, char** errString) noexcept {
  *errString = nullptr;
  json_object* member = nullptr;
  if (!json_object_object_get_ex(reply, "errorMessage", &member)) return false;
  const char* text = json_object_get_string(member);
  if (text == nullptr) return false;
  *errString = daxo::Dup(text);
  return *errString != nullptr;
}

}  // namespace

extern "C" int ParseErrorMessage(const char* message, int* err, char** errString) noexcept {
  if (message == nullptr) return 0;
  daxo::JsonPtr reply = daxo::ParseJson(message);
  if (!reply) return 0;
  if (err != nullptr && !ReadCode(reply.get(), err)) return 0;
  if (errString != nullptr && !ReadText(reply.get(), errString)) return 0;
  return 1;
}

extern "C" void LogParseErrorMessage(DAXO_Client* client, const char* topic,
                                     const char* errMessage) noexcept {
  daxo::LogFormat(client, "Failed to parse API error: topic - %s, errMessage - %s",
                  topic != nullptr ? topic : "N/A", errMessage != nullptr ? errMessage : "N/A");
}

// The names of the result codes, for messages and logs.
#include "daxo_client.h"

extern "C" {

const char* DAXO_ErrorName(DAXO_Error err) noexcept {
  switch (err) {
    case DAXO_Error_Unknown:
      return "DAXO_Error_Unknown";
    case DAXO_Error_Success:
      return "DAXO_Error_Success";
    case DAXO_Error_WrongApiVersion:
      return "DAXO_Error_WrongApiVersion";
    case DAXO_Error_WrongConfigName:
      return "DAXO_Error_WrongConfigName";
    case DAXO_Error_ConfigReadFailed:
      return "DAXO_Error_ConfigReadFailed";
    case DAXO_Error_WrongConfigParams:
      return "DAXO_Error_WrongConfigParams";
    case DAXO_Error_NoMemory:
      return "DAXO_Error_NoMemory";
    case DAXO_Error_InvalidArguments:
      return "DAXO_Error_InvalidArguments";
    case DAXO_Error_NoResource:
      return "DAXO_Error_NoResource";
    case DAXO_Error_ConnectionFailed:
      return "DAXO_Error_ConnectionFailed";
    case DAXO_Error_WrongProtocol:
      return "DAXO_Error_WrongProtocol";
    case DAXO_Error_WrongIdentifier:
      return "DAXO_Error_WrongIdentifier";
    case DAXO_Error_ServerUnavailable:
      return "DAXO_Error_ServerUnavailable";
    case DAXO_Error_UnexpectedDisconnect:
      return "DAXO_Error_UnexpectedDisconnect";
    case DAXO_Error_NoConnectionToServer:
      return "DAXO_Error_NoConnectionToServer";
    case DAXO_Error_PayloadSize:
      return "DAXO_Error_PayloadSize";
    case DAXO_Error_WrongReply:
      return "DAXO_Error_WrongReply";
    case DAXO_Error_Busy:
      return "DAXO_Error_Busy";
    case DAXO_Error_CreateCertificate:
      return "DAXO_Error_CreateCertificate";
    case DAXO_Error_CreateProvisionCertificate:
      return "DAXO_Error_CreateProvisionCertificate";
    case DAXO_Error_CreatePrivateKey:
      return "DAXO_Error_CreatePrivateKey";
    case DAXO_Error_GetClientId:
      return "DAXO_Error_GetClientId";
    case DAXO_Error_TlsSetFailed:
      return "DAXO_Error_TlsSetFailed";
    case DAXO_Error_ClientProvision:
      return "DAXO_Error_ClientProvision";
    case DAXO_Error_ModifySensor:
      return "DAXO_Error_ModifySensor";
    case DAXO_Error_DeleteSensor:
      return "DAXO_Error_DeleteSensor";
    case DAXO_Error_DeleteMetrics:
      return "DAXO_Error_DeleteMetrics";
    case DAXO_Error_RemoveCertificates:
      return "DAXO_Error_RemoveCertificates";
    case DAXO_Error_TlsConnection:
      return "DAXO_Error_TlsConnection";
    case DAXO_Error_Errno:
      return "DAXO_Error_Errno";
    case DAXO_Error_ComposeJson:
      return "DAXO_Error_ComposeJson";
    case DAXO_Error_NoThreadSupport:
      return "DAXO_Error_NoThreadSupport";
    case DAXO_Error_ReadCertificateCN:
      return "DAXO_Error_ReadCertificateCN";
    case DAXO_Error_CertificateRequestPath:
      return "DAXO_Error_CertificateRequestPath";
    case DAXO_Error_CertifcateFolderPath:
      return "DAXO_Error_CertifcateFolderPath";
    case DAXO_Error_AlreadyProvisioned:
      return "DAXO_Error_AlreadyProvisioned";
    case DAXO_Error_WritingToCertificateFile:
      return "DAXO_Error_WritingToCertificateFile";
    case DAXO_Error_WrongCertificateFile:
      return "DAXO_Error_WrongCertificateFile";
    case DAXO_Error_ThreadCreate:
      return "DAXO_Error_ThreadCreate";
    case DAXO_Error_NoBackendConnection:
      return "DAXO_Error_NoBackendConnection";
    case DAXO_Error_CertificateRequest:
      return "DAXO_Error_CertificateRequest";
  }
  return "DAXO_Error_(unknown)";
}

const char* DAXO_ApiErrorName(DAXO_ApiError err) noexcept {
  switch (err) {
    case DAXO_ApiError_NoError:
      return "DAXO_ApiError_NoError";
    case DAXO_ApiError_UnknownError:
      return "DAXO_ApiError_UnknownError";
    case DAXO_ApiError_NoBackendConnection:
      return "DAXO_ApiError_NoBackendConnection";
    case DAXO_ApiError_InternalError:
      return "DAXO_ApiError_InternalError";
    case DAXO_ApiError_InvalidJson:
      return "DAXO_ApiError_InvalidJson";
    case DAXO_ApiError_JsonIsNotAnObject:
      return "DAXO_ApiError_JsonIsNotAnObject";
    case DAXO_ApiError_MissingParameter:
      return "DAXO_ApiError_MissingParameter";
    case DAXO_ApiError_ParameterIsNotAString:
      return "DAXO_ApiError_ParameterIsNotAString";
    case DAXO_ApiError_ParameterIsNotANumber:
      return "DAXO_ApiError_ParameterIsNotANumber";
    case DAXO_ApiError_ParameterIsNotABool:
      return "DAXO_ApiError_ParameterIsNotABool";
    case DAXO_ApiError_ParameterIsNotAnArray:
      return "DAXO_ApiError_ParameterIsNotAnArray";
    case DAXO_ApiError_ParameterIsNotAnInteger:
      return "DAXO_ApiError_ParameterIsNotAnInteger";
    case DAXO_ApiError_UnknownValueUnit:
      return "DAXO_ApiError_UnknownValueUnit";
    case DAXO_ApiError_UnknownMetricType:
      return "DAXO_ApiError_UnknownMetricType";
    case DAXO_ApiError_ValueUnitOrValueTypeHasToBeProvided:
      return "DAXO_ApiError_ValueUnitOrValueTypeHasToBeProvided";
    case DAXO_ApiError_UnknownSensorId:
      return "DAXO_ApiError_UnknownSensorId";
    case DAXO_ApiError_UnknownMetricId:
      return "DAXO_ApiError_UnknownMetricId";
    case DAXO_ApiError_NoMetricsUpdated:
      return "DAXO_ApiError_NoMetricsUpdated";
    case DAXO_ApiError_ForbiddendAccess:
      return "DAXO_ApiError_ForbiddendAccess";
    case DAXO_ApiError_OutOfRange:
      return "DAXO_ApiError_OutOfRange";
    case DAXO_ApiError_CertificateFormatError:
      return "DAXO_ApiError_CertificateFormatError";
    case DAXO_ApiError_CertificateIsEmptyError:
      return "DAXO_ApiError_CertificateIsEmptyError";
    case DAXO_ApiError_CertificateWithoutCommonName:
      return "DAXO_ApiError_CertificateWithoutCommonName";
    case DAXO_ApiError_DeleteMetricsFailed:
      return "DAXO_ApiError_DeleteMetricsFailed";
    case DAXO_ApiError_ChangeMetricsFailed:
      return "DAXO_ApiError_ChangeMetricsFailed";
    case DAXO_ApiError_InvalidClientName:
      return "DAXO_ApiError_InvalidClientName";
    case DAXO_ApiError_CreateMetricsFailed:
      return "DAXO_ApiError_CreateMetricsFailed";
    case DAXO_ApiError_PushValuesFailed:
      return "DAXO_ApiError_PushValuesFailed";
  }
  return "DAXO_ApiError_(unknown)";
}

}  // extern "C"

/*
 * libdaxoclient: report a device's measurements to the local IoT agent.
 *
 * An application creates a client from a configuration file, provisions it
 * (a key pair and a certificate request sent to the agent; the certificate
 * that comes back names the client), connects with mutual TLS and then
 * manages sensors and metrics, pushes values and receives jobs. Every
 * request returns at once; the agent's answer arrives later through a
 * callback.
 *
 * Threads: callbacks run on threads of the library (named with each
 * callback type below); strings passed to a callback belong to the library
 * and are valid only during the call. Set every callback before
 * DAXO_ProvisionClient and DAXO_Connect. Inside any callback but OnLog, an
 * application may call every request, DAXO_Connect, DAXO_Disconnect and
 * DAXO_ProvisionClient: the last three then check their arguments, hand
 * the work to the client's watch thread and return DAXO_Error_Success, a
 * later failure reaching OnConnect, OnDisconnect or OnProvisionClient from
 * the watch thread. OnLog must not call the library. DAXO_DeleteClient and
 * DAXO_LibCleanup are never called from a callback. Hold no lock of your
 * own across DAXO_Connect, DAXO_Disconnect or DAXO_DeleteClient that a
 * callback takes: they stop network threads that may be running it.
 *
 * This header compiles as C11 and as C++.
 */
#ifndef DAXO_CLIENT_H
#define DAXO_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define DAXO_EXPORT __attribute__((visibility("default")))
#else
#define DAXO_EXPORT
#endif

#ifdef __cplusplus
#define DAXO_NOEXCEPT noexcept
#else
#define DAXO_NOEXCEPT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------
 * Result codes
 * ---------------------------------------------------------------------- */

/* The library's own result, returned by every operation and passed to the
 * connection, provisioning and renewal callbacks. The numbers are stable. */
typedef enum DAXO_ErrorTag {
  DAXO_Error_Unknown = -1,
  DAXO_Error_Success = 0,
  DAXO_Error_WrongApiVersion = 1,
  DAXO_Error_WrongConfigName = 2,
  DAXO_Error_ConfigReadFailed = 3,
  DAXO_Error_WrongConfigParams = 4,
  DAXO_Error_NoMemory = 5,
  DAXO_Error_InvalidArguments = 6,
  DAXO_Error_NoResource = 7,
  DAXO_Error_ConnectionFailed = 8,
  DAXO_Error_WrongProtocol = 9,
  DAXO_Error_WrongIdentifier = 10,
  DAXO_Error_ServerUnavailable = 11,
  DAXO_Error_UnexpectedDisconnect = 12,
  DAXO_Error_NoConnectionToServer = 13,
  DAXO_Error_PayloadSize = 14,
  DAXO_Error_WrongReply = 15,
  DAXO_Error_Busy = 16,
  DAXO_Error_CreateCertificate = 17,
  DAXO_Error_CreateProvisionCertificate = 18,
  DAXO_Error_CreatePrivateKey = 19,
  DAXO_Error_GetClientId = 20,
  DAXO_Error_TlsSetFailed = 21,
  DAXO_Error_ClientProvision = 22,
  DAXO_Error_ModifySensor = 23,
  DAXO_Error_DeleteSensor = 24,
  DAXO_Error_DeleteMetrics = 25,
  DAXO_Error_RemoveCertificates = 26,
  DAXO_Error_TlsConnection = 27,
  DAXO_Error_Errno = 28,
  DAXO_Error_ComposeJson = 29,
  DAXO_Error_NoThreadSupport = 30,
  DAXO_Error_ReadCertificateCN = 31,
  DAXO_Error_CertificateRequestPath = 32,
  DAXO_Error_CertifcateFolderPath = 33,
  DAXO_Error_AlreadyProvisioned = 34,
  DAXO_Error_WritingToCertificateFile = 35,
  DAXO_Error_WrongCertificateFile = 36,
  DAXO_Error_ThreadCreate = 37,
  DAXO_Error_NoBackendConnection = 38,
  DAXO_Error_CertificateRequest = 39,
  /* Why a connection to the broker failed: nothing accepts connections at
   * the host and port (broker down, wrong port, host unreachable); the host
   * name cannot be resolved; no answer in time; the client refused the
   * broker's certificate; the broker refused the client's certificate.
   * DAXO_Error_TlsConnection stands for any other TLS failure. */
  DAXO_Error_ConnectionRefused = 40,
  DAXO_Error_HostNotFound = 41,
  DAXO_Error_ConnectionTimeout = 42,
  DAXO_Error_BrokerCertificateRefused = 43,
  DAXO_Error_ClientCertificateRefused = 44,
  /* The client certificate in the certificate folder is past its end of
   * validity: no broker will accept it. DAXO_ResetIdentity and a new
   * DAXO_ProvisionClient give the client a new one. */
  DAXO_Error_ClientCertificateExpired = 45,
  /* The push store (PushStore in the configuration) is full and its policy
   * is "refuse"; or one push is larger than the whole store. */
  DAXO_Error_PushStoreFull = 46,
  /* The persistent push store cannot be opened, read or written (its
   * folder is not writable, the disk is full); the log names the reason. */
  DAXO_Error_PushStoreUnusable = 47
} DAXO_Error;

/* The agent's verdict on a request, passed to reply callbacks. The numbers
 * are the agent's own "errorcode" values; DAXO_ApiError_NoError marks a
 * successful reply and DAXO_ApiError_UnknownError any number outside 1..27. */
typedef enum DAXO_ApiErrorTag {
  DAXO_ApiError_NoError = -1,
  DAXO_ApiError_UnknownError = 0,
  DAXO_ApiError_NoBackendConnection = 1,
  DAXO_ApiError_InternalError = 3,
  DAXO_ApiError_InvalidJson = 4,
  DAXO_ApiError_JsonIsNotAnObject = 5,
  DAXO_ApiError_MissingParameter = 6,
  DAXO_ApiError_ParameterIsNotAString = 7,
  DAXO_ApiError_ParameterIsNotANumber = 8,
  DAXO_ApiError_ParameterIsNotABool = 9,
  DAXO_ApiError_ParameterIsNotAnArray = 10,
  DAXO_ApiError_ParameterIsNotAnInteger = 11,
  DAXO_ApiError_UnknownValueUnit = 12,
  DAXO_ApiError_UnknownMetricType = 13,
  DAXO_ApiError_ValueUnitOrValueTypeHasToBeProvided = 14,
  DAXO_ApiError_UnknownSensorId = 15,
  DAXO_ApiError_UnknownMetricId = 16,
  DAXO_ApiError_NoMetricsUpdated = 17,
  DAXO_ApiError_ForbiddendAccess = 18,
  DAXO_ApiError_OutOfRange = 19,
  DAXO_ApiError_CertificateFormatError = 20,
  DAXO_ApiError_CertificateIsEmptyError = 21,
  DAXO_ApiError_CertificateWithoutCommonName = 22,
  DAXO_ApiError_DeleteMetricsFailed = 23,
  DAXO_ApiError_ChangeMetricsFailed = 24,
  DAXO_ApiError_InvalidClientName = 25,
  DAXO_ApiError_CreateMetricsFailed = 26,
  DAXO_ApiError_PushValuesFailed = 27
} DAXO_ApiError;

/* ------------------------------------------------------------------------
 * Metric vocabulary
 * ---------------------------------------------------------------------- */

/* The unit of a standard metric. On the wire a unit is the text in its
 * comment, in the "valueUnit" member of the metric definitions the library
 * sends and of the descriptions the agent returns; the numbers never leave
 * the library. DAXO_ValueUnit_NoUnit is never sent (a standard metric needs
 * a unit), and a description naming a text not listed here is dropped:
 * OnDescribeMetric is not called for it. */
typedef enum DAXO_ValueUnitTag {
  DAXO_ValueUnit_NoUnit = 0,                   /* "No_Unit" */
  DAXO_ValueUnit_SIAmpere = 1,                 /* "SI.ElectricCurrent.AMPERE" */
  DAXO_ValueUnit_SIBit = 2,                    /* "SI.DataAmount.BIT" */
  DAXO_ValueUnit_SICandela = 3,                /* "SI.LuminousIntensity.CANDELA" */
  DAXO_ValueUnit_SICelsius = 4,                /* "SI.Temperature.CELSIUS" */
  DAXO_ValueUnit_SIFarad = 5,                  /* "SI.ElectricCapacitance.FARAD" */
  DAXO_ValueUnit_SIKilogram = 6,               /* "SI.Mass.KILOGRAM" */
  DAXO_ValueUnit_SIHertz = 7,                  /* "SI.Frequency.HERTZ" */
  DAXO_ValueUnit_SIJoule = 8,                  /* "SI.Energy.JOULE" */
  DAXO_ValueUnit_SIMeter = 9,                  /* "SI.Length.METER" */
  DAXO_ValueUnit_SIMetersPerSecond = 10,       /* "SI.Velocity.METERS_PER_SECOND" */
  DAXO_ValueUnit_SIMetersPerSquareSecond = 11, /* "SI.Acceleration.METERS_PER_SQUARE_SECOND" */
  DAXO_ValueUnit_SIMole = 12,                  /* "SI.AmountOfSubstance.MOLE" */
  DAXO_ValueUnit_SINewtone = 13,               /* "SI.Force.NEWTON" */
  DAXO_ValueUnit_SIOhm = 14,                   /* "SI.ElectricResistance.OHM" */
  DAXO_ValueUnit_SIPascal = 15,                /* "SI.Pressure.PASCAL" */
  DAXO_ValueUnit_SIRadian = 16,                /* "SI.Angle.RADIAN" */
  DAXO_ValueUnit_SISecond = 17,                /* "SI.Duration.SECOND" */
  DAXO_ValueUnit_SISquareMeter = 18,           /* "SI.Area.SQUARE_METRE" */
  DAXO_ValueUnit_SIVolt = 19,                  /* "SI.ElectricPotential.VOLT" */
  DAXO_ValueUnit_SIWatt = 20,                  /* "SI.Power.WATT" */
  DAXO_ValueUnit_NoSIDecibel = 21,             /* "NoSI.Dimensionless.DECIBEL" */
  DAXO_ValueUnit_NoSIPercent = 22              /* "NoSI.Dimensionless.PERCENT" */
} DAXO_ValueUnit;

/* The value type of a custom metric, on the wire the text in its comment
 * ("valueType"), as units are. */
typedef enum DAXO_ValueTypeTag {
  DAXO_ValueType_NoType = 0,  /* "Non", never sent */
  DAXO_ValueType_Integer = 1, /* "integer" */
  DAXO_ValueType_Double = 2,  /* "double" */
  DAXO_ValueType_Bool = 3,    /* "bool" */
  DAXO_ValueType_String = 4   /* "string" */
} DAXO_ValueType;

/* DAXO_ErrorName and DAXO_ApiErrorName return the enumerator's name as a
 * static string ("DAXO_Error_NoMemory"), or "DAXO_Error_(unknown)" /
 * "DAXO_ApiError_(unknown)" for a number that has none. */
DAXO_EXPORT const char* DAXO_ErrorName(DAXO_Error err) DAXO_NOEXCEPT;
DAXO_EXPORT const char* DAXO_ApiErrorName(DAXO_ApiError err) DAXO_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Handles and records
 * ---------------------------------------------------------------------- */

/* The client: opaque, created by DAXO_NewClient, released by
 * DAXO_DeleteClient. */
typedef struct DAXO_ClientTag DAXO_Client;

/* Batches the application fills and sends; opaque, created and destroyed
 * by their functions below. */
typedef struct DAXO_MetricSchemaContainerTag DAXO_MetricSchemaContainer;
typedef struct DAXO_MetricValueContainerTag DAXO_MetricValueContainer;

/* Records delivered by reply callbacks. Every string in them is a heap copy
 * owned by the record; the application owns a record once it is delivered
 * and releases it with its destroyer. */

typedef enum DAXO_SensorTypeTag {
  DAXO_SensorType_None = 0,     /* neither a plug-in nor a monitoring service */
  DAXO_SensorType_Standard = 1, /* monitoringService given */
  DAXO_SensorType_Plugin = 2    /* pluginName given */
} DAXO_SensorType;

/* One name/value pair of a plug-in sensor's parameters. */
typedef struct DAXO_PluginParameterTag {
  char* parameterName;
  char* parameterValue;
} DAXO_PluginParameter;

/* One metric of a sensor. */
typedef struct DAXO_MetricInfoTag {
  char* metricId;
} DAXO_MetricInfo;

/* The description of one sensor. */
typedef struct DAXO_SensorMetadataTag {
  char* name;
  char* sensorId;
  int frequency; /* 0 when not given */
  DAXO_SensorType sensorType;
  char* pluginName;                         /* plug-in sensors, else null */
  char* pluginDownloadUrl;                  /* plug-in sensors, else null */
  DAXO_PluginParameter* pluginParameters;   /* null when there are none */
  int pluginParametersCount;
  char* monitoringService; /* standard sensors, else null */
  DAXO_MetricInfo* metrics; /* null when there are none */
  int metricsCount;
} DAXO_SensorMetadata;

/* The sensor list: an array of records (not of pointers). */
typedef struct DAXO_SensorsInfoTag {
  DAXO_SensorMetadata* sensors; /* null when empty */
  int sensorsCount;
} DAXO_SensorsInfo;

/* One metric the agent created: the application's id and the agent's. */
typedef struct DAXO_CreatedMetricTag {
  char* matchingId;
  char* metricId;
} DAXO_CreatedMetric;

/* The reply to DAXO_CreateMetrics, in the order of the request. */
typedef struct DAXO_CreatedMetricsTag {
  char* sensorId;
  DAXO_CreatedMetric* metrics; /* null when empty */
  int metricsCount;
} DAXO_CreatedMetrics;

/* One metric's definition and last value. A standard metric has a unit and
 * DAXO_ValueType_NoType; a custom metric has a type, an annotation and
 * DAXO_ValueUnit_NoUnit. */
typedef struct DAXO_MetricMetadataTag {
  char* id;
  DAXO_ValueUnit valueUnit;
  DAXO_ValueType valueType;
  char* valueAnnotation; /* custom metrics, else null */
  uint64_t lastUpdated;
  char* value; /* the last value, as text */
  char* name;
} DAXO_MetricMetadata;

/* ------------------------------------------------------------------------
 * Callback types
 *
 * Every callback receives the client first and the callbackParameter given
 * to DAXO_NewClient unchanged; its position differs between types.
 * ---------------------------------------------------------------------- */

/* A diagnostic line: no level, no time stamp, no trailing newline. Called
 * on whichever thread produced the line, without any lock held, so it must
 * accept concurrent calls. The line is valid only during the call. Lines of
 * libmosquitto for both connections are passed on; every connection failure
 * is named once an outage as "Connection to HOST:PORT failed: REASON (CODE)".
 * A message's payload is logged up to its first 1024 bytes, then its
 * length. */
typedef void (*DAXO_OnLog)(DAXO_Client* client, const char* line, void* callbackParameter);

/* Outcome of a connection: DAXO_Error_Success once the client's topic tree
 * is subscribed (after every automatic reconnection too), the broker's
 * CONNACK refusal (each refused attempt; DAXO_Error_WrongProtocol,
 * DAXO_Error_WrongIdentifier, DAXO_Error_ServerUnavailable or
 * DAXO_Error_Unknown), or DAXO_Error_ConnectionFailed for a refused
 * subscription. Runs on the connection's network thread; on the watch
 * thread when a DAXO_Connect made inside a callback, or a certificate
 * renewal's reconnection, could not be started (the watch thread then tries
 * again). */
typedef void (*DAXO_OnConnect)(DAXO_Client* client, void* callbackParameter, DAXO_Error err);

/* End of the connection, once per outage: DAXO_Error_Success when the
 * application asked for it, DAXO_Error_UnexpectedDisconnect when a working
 * connection is lost (on the network thread). When a connection has not
 * come up 2 s after DAXO_Connect, the reason, from the client's watch
 * thread: DAXO_Error_ConnectionRefused (nothing accepts connections at the
 * host and port), DAXO_Error_BrokerCertificateRefused (the client refused
 * the broker's certificate),
 * DAXO_Error_ClientCertificateRefused (the broker refused the client's),
 * DAXO_Error_TlsConnection (another TLS failure) or
 * DAXO_Error_ConnectionTimeout (no answer). A CONNACK refusal reaches
 * OnConnect instead. */
typedef void (*DAXO_OnDisconnect)(DAXO_Client* client, void* callbackParameter, DAXO_Error err);

/* Reply to DAXO_CreateSensor: its name and the agent's new sensor id, or
 * null strings and the agent's code. Network thread. */
typedef void (*DAXO_OnCreateSensor)(DAXO_Client* client, void* callbackParameter,
                                    const char* sensorName, const char* sensorId,
                                    DAXO_ApiError err);

/* Reply to DAXO_CreateMetrics; the record (null on error) becomes the
 * application's. Network thread. */
typedef void (*DAXO_OnCreateMetrics)(DAXO_Client* client, void* callbackParameter,
                                     DAXO_CreatedMetrics* metrics, DAXO_ApiError err);

/* Reply to DAXO_UpdateMetrics for the sensor named. Network thread. */
typedef void (*DAXO_OnUpdateMetrics)(DAXO_Client* client, void* callbackParameter,
                                     const char* sensorId, DAXO_ApiError err);

/* The deprovisioning request has been delivered and the local identity
 * removed. Network thread. */
typedef void (*DAXO_OnDeprovisionClient)(DAXO_Client* client, void* callbackParameter);

/* Reply to DAXO_ListSensors; the record (null on error) becomes the
 * application's. Network thread. */
typedef void (*DAXO_OnListSensors)(DAXO_Client* client, DAXO_SensorsInfo* sensors,
                                   void* callbackParameter, DAXO_ApiError err);

/* Reply to DAXO_DescribeMetric; the record (null on error) becomes the
 * application's. Network thread. */
typedef void (*DAXO_OnDescribeMetric)(DAXO_Client* client, const char* sensorId,
                                      DAXO_MetricMetadata* metric, void* callbackParameter,
                                      DAXO_ApiError err);

/* Outcome of DAXO_ProvisionClient. Runs on the provisioning connection's
 * network thread, on the caller's thread for DAXO_Error_AlreadyProvisioned,
 * or on the watch thread when the agent does not answer within 30 s (the
 * reason the provisioning connection never came up, as OnDisconnect gives
 * it, or DAXO_Error_ClientProvision when it did) or a call made inside a
 * callback fails. */
typedef void (*DAXO_OnProvisionClient)(DAXO_Client* client, void* callbackParameter,
                                       DAXO_Error err);

/* Reply to DAXO_UpdateSensor for the sensor named. Network thread. */
typedef void (*DAXO_OnModifySensor)(DAXO_Client* client, void* callbackParameter,
                                    const char* sensorId, DAXO_ApiError err);

/* Reply to DAXO_DeleteSensor for the sensor named. Network thread. */
typedef void (*DAXO_OnDeleteSensor)(DAXO_Client* client, void* callbackParameter,
                                    const char* sensorId, DAXO_ApiError err);

/* Reply to DAXO_PushMetricValues for the sensor named. Network thread. */
typedef void (*DAXO_OnPushMetricValues)(DAXO_Client* client, void* callbackParameter,
                                        const char* sensorId, DAXO_ApiError err);

/* Reply to DAXO_DeleteMetrics for the sensor named. Network thread. */
typedef void (*DAXO_OnDeleteMetrics)(DAXO_Client* client, void* callbackParameter,
                                     const char* sensorId, DAXO_ApiError err);

/* Reply to DAXO_CheckConnection. Network thread. */
typedef void (*DAXO_OnCheckConnection)(DAXO_Client* client, void* callbackParameter,
                                       DAXO_ApiError err);

/* The agent asks the application to create the sensor described; the
 * record becomes the application's. Network thread. */
typedef void (*DAXO_OnCreateSensorJob)(DAXO_Client* client, DAXO_SensorMetadata* sensor,
                                       void* callbackParameter);

/* The agent asks the application to delete the sensor named. Network
 * thread. */
typedef void (*DAXO_OnDeleteSensorJob)(DAXO_Client* client, const char* sensorId,
                                       void* callbackParameter);

/* Why kept pushes were dropped without reaching the agent. */
typedef enum DAXO_PushDropReasonTag {
  /* The store was full and its policy is "drop-oldest". */
  DAXO_PushDrop_StoreFull = 1,
  /* A memory store ended with its client: DAXO_DeleteClient, or the
   * completion of DAXO_DeprovisionClient. */
  DAXO_PushDrop_ClientEnded = 2,
  /* The persistent store's file was corrupt: it was moved aside and a new
   * one started; count is 0, as what the file held is unknown. */
  DAXO_PushDrop_StoreCorrupt = 3,
  /* The persistent store held pushes of another client identity (the
   * client was provisioned anew since): they are dropped when it opens. */
  DAXO_PushDrop_OtherIdentity = 4
} DAXO_PushDropReason;

/* Kept pushes of sensor sensorId (count of them, oldest first) were dropped:
 * none of them is sent again or reaches OnPushMetricValues, but one already
 * sent may have reached the agent. sensorId is null with
 * DAXO_PushDrop_StoreCorrupt and DAXO_PushDrop_OtherIdentity, and when
 * memory for naming the sensors ran out (count is then the total of every
 * sensor's). Runs on the thread
 * whose call caused the drop: the application's for DAXO_PushMetricValues,
 * DAXO_Connect and DAXO_DeleteClient, the network thread for a
 * deprovisioning's completion. */
typedef void (*DAXO_OnPushDropped)(DAXO_Client* client, void* callbackParameter,
                                   const char* sensorId, int count, DAXO_PushDropReason reason);

/* ------------------------------------------------------------------------
 * Library
 * ---------------------------------------------------------------------- */

/* DAXO_LibInit initialises the library once per process, before the first
 * client is created. Always returns DAXO_Error_Success. */
DAXO_EXPORT DAXO_Error DAXO_LibInit(void) DAXO_NOEXCEPT;

/* DAXO_LibCleanup releases the library once, after the last client has
 * been deleted, never from a callback. Always returns DAXO_Error_Success. */
DAXO_EXPORT DAXO_Error DAXO_LibCleanup(void) DAXO_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Client
 * ---------------------------------------------------------------------- */

/* DAXO_NewClient creates a client from the configuration file at confFile
 * and starts its certificate watch thread; it makes no connection.
 *
 * The file, a regular file, holds one setting a line (at most 4096
 * characters), a key, blanks and the value:
 *   MqttHost, MqttPort, MqttProvisionPort, CaFile, CertFolder (required),
 *   MqttKeepAlive, ClientName, and the push store's PushStore ("memory"
 *   or a file's path), PushStoreMaxBytes (4096 to 2147483647, 8388608 when
 *   absent), PushStorePolicy ("drop-oldest", the default, or "refuse") and
 *   PushStoreSync ("normal", the default, or "full") (optional; see
 *   DAXO_PushMetricValues). Lines starting with "#" are comments. Ports are
 *   whole numbers from 1 to 65535; MqttKeepAlive is 0 (off) or from 5 to
 *   65535 seconds, 60 when absent.
 *
 * callbackParameter is passed back unchanged to every callback and never
 * dereferenced. err must point to writable storage; it receives the result
 * on every path: DAXO_Error_InvalidArguments (null confFile),
 * DAXO_Error_WrongConfigName (empty confFile), DAXO_Error_ConfigReadFailed
 * (the file cannot be opened or read), DAXO_Error_WrongConfigParams (not a
 * regular file, a line too long, a number out of its range or with other
 * text, a word not among its choices, a required key missing), DAXO_Error_NoMemory,
 * DAXO_Error_ThreadCreate, or DAXO_Error_Success. DAXO_ExplainConfig puts
 * a configuration failure in words.
 *
 * Returns the client, owned by the caller and released with
 * DAXO_DeleteClient, or null on failure (nothing is left allocated). */
DAXO_EXPORT DAXO_Client* DAXO_NewClient(const char* confFile, void* callbackParameter,
                                        DAXO_Error* err) DAXO_NOEXCEPT;

/* DAXO_ExplainConfig reads the configuration file at confFile as
 * DAXO_NewClient does and writes one line saying what is wrong with it (the
 * line and key concerned, the system's reason when it cannot be opened or
 * read), or that nothing is, into buffer: at most size bytes, always
 * NUL-terminated when size is not 0. The caller owns buffer; 256 bytes hold
 * every explanation but the longest paths. It needs no client, so it can be
 * called when DAXO_NewClient has failed, from any thread.
 *
 * Returns the code DAXO_NewClient gives for this file's configuration
 * (DAXO_Error_Success when the file is good), or
 * DAXO_Error_InvalidArguments for a null confFile, or a null buffer with a
 * size other than 0 (nothing is written). */
DAXO_EXPORT DAXO_Error DAXO_ExplainConfig(const char* confFile, char* buffer,
                                          size_t size) DAXO_NOEXCEPT;

/* DAXO_DeleteClient stops the client's watch thread, disconnects and
 * releases its connections and frees the client. Call it from the
 * application's thread: inside a callback (on any of the library's threads)
 * it returns DAXO_Error_InvalidArguments at once and deletes nothing.
 * Returns DAXO_Error_InvalidArguments for a null client, else
 * DAXO_Error_Success. */
DAXO_EXPORT DAXO_Error DAXO_DeleteClient(DAXO_Client* client) DAXO_NOEXCEPT;

/* DAXO_GetClientId returns the client identifier (the common name of the
 * client certificate), or null for a null client or before provisioning.
 * The string belongs to the client: it is valid until the client is deleted
 * or provisioned anew. */
DAXO_EXPORT const char* DAXO_GetClientId(DAXO_Client* client) DAXO_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Callback setters
 *
 * Each stores its callback (null switches it off) and returns
 * DAXO_Error_Success, or DAXO_Error_InvalidArguments for a null client.
 * Callbacks are read by the library's threads without a lock: set them
 * before DAXO_ProvisionClient and DAXO_Connect.
 * ---------------------------------------------------------------------- */

DAXO_EXPORT DAXO_Error DAXO_ProvisionClientCallbackSet(DAXO_Client* client,
                                                       DAXO_OnProvisionClient OnProvisionClient) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_ConnectCallbackSet(DAXO_Client* client, DAXO_OnConnect OnConnect) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_DisconnectCallbackSet(DAXO_Client* client,
                                                  DAXO_OnDisconnect OnDisconnect) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_CreateSensorCallbackSet(DAXO_Client* client,
                                                    DAXO_OnCreateSensor OnCreateSensor) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_UpdateSensorCallbackSet(DAXO_Client* client,
                                                    DAXO_OnModifySensor OnModifySensor) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_DeleteSensorCallbackSet(DAXO_Client* client,
                                                    DAXO_OnDeleteSensor OnDeleteSensor) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_DeleteMetricsCallbackSet(DAXO_Client* client,
                                                     DAXO_OnDeleteMetrics OnDeleteMetrics) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_PushMetricValuesCallbackSet(DAXO_Client* client,
                                                        DAXO_OnPushMetricValues OnPushMetricValues) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_CreateMetricsCallbackSet(DAXO_Client* client,
                                                     DAXO_OnCreateMetrics OnCreateMetrics) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_UpdateMetricsCallbackSet(DAXO_Client* client,
                                                     DAXO_OnUpdateMetrics OnUpdateMetrics) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_LogCallbackSet(DAXO_Client* client, DAXO_OnLog onLog) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_ListSensorsCallbackSet(DAXO_Client* client,
                                                   DAXO_OnListSensors OnListSensors) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_DescribeMetricCallbackSet(DAXO_Client* client,
                                                      DAXO_OnDescribeMetric OnDescribeMetric) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_CheckConnectionCallbackSet(DAXO_Client* client,
                                                       DAXO_OnCheckConnection OnCheckConnection) DAXO_NOEXCEPT;

/* DAXO_DeprovisionClientCallbackSet also installs, on the client's current
 * connection, the handler that completes a deprovisioning once the broker
 * acknowledges its request (null removes it). Set before DAXO_Connect, the
 * callback is remembered and installed on the connection DAXO_Connect
 * makes. */
DAXO_EXPORT DAXO_Error DAXO_DeprovisionClientCallbackSet(
    DAXO_Client* client, DAXO_OnDeprovisionClient OnDeprovisionClient) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_CreateSensorJobCallbackSet(DAXO_Client* client,
                                                       DAXO_OnCreateSensorJob OnCreateSensorJob) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_DeleteSensorJobCallbackSet(DAXO_Client* client,
                                                       DAXO_OnDeleteSensorJob OnDeleteSensorJob) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_PushDroppedCallbackSet(DAXO_Client* client,
                                                   DAXO_OnPushDropped OnPushDropped) DAXO_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Provisioning
 * ---------------------------------------------------------------------- */

/* DAXO_ProvisionClient gives the client its identity. When CertFolder
 * already holds "cert.crt" and "priv_key.key" (and CaFile exists), it reads
 * the identifier from the certificate, calls OnProvisionClient with
 * DAXO_Error_AlreadyProvisioned on the caller's thread and returns that
 * code. Otherwise it writes a new RSA key to "priv_key.key" (the folder is
 * created with mode 0700), sends a certificate request to the agent over
 * the provisioning port and returns DAXO_Error_Success: the outcome arrives
 * later through OnProvisionClient, on the provisioning connection's network
 * thread, and on success DAXO_GetClientId names the client. An exchange
 * the agent does not answer within 30 s ends with DAXO_Error_ClientProvision
 * (from the watch thread), as does an error reply that cannot be read.
 * Calling it again while a request is pending replaces that request. All
 * provisioning connections use the MQTT identifier "myid": processes that
 * provision at the same time on one broker take it from each other.
 *
 * An identity in the certificate folder that cannot be used is never
 * replaced: key and certificate that exist but are empty, unreadable or do
 * not match give DAXO_Error_WrongCertificateFile, an expired certificate
 * DAXO_Error_ClientCertificateExpired, and a "cert.crt" whose authority
 * file (CaFile) is missing DAXO_Error_TlsSetFailed (its key missing:
 * DAXO_Error_WrongCertificateFile), each with a line naming the file.
 * DAXO_ResetIdentity then lets the client provision again.
 *
 * Other results: DAXO_Error_InvalidArguments, DAXO_Error_NoMemory,
 * DAXO_Error_GetClientId, DAXO_Error_CreateProvisionCertificate,
 * DAXO_Error_CreatePrivateKey, DAXO_Error_TlsSetFailed,
 * DAXO_Error_TlsConnection, DAXO_Error_Errno, DAXO_Error_NoThreadSupport,
 * DAXO_Error_Unknown, and the reasons of DAXO_Connect when the connection
 * fails inside the call, DAXO_Error_PushStoreUnusable included. Outcomes:
 * DAXO_Error_Success, the broker's refusal, DAXO_Error_WrongReply (a
 * certificate that is not one or is not for the client's key: nothing is
 * stored), DAXO_Error_CreateCertificate, DAXO_Error_CertifcateFolderPath,
 * DAXO_Error_ReadCertificateCN, DAXO_Error_NoBackendConnection,
 * DAXO_Error_CertificateRequest, DAXO_Error_ClientProvision, a reason the
 * connection never came up (see DAXO_OnDisconnect), DAXO_Error_Unknown. */
DAXO_EXPORT DAXO_Error DAXO_ProvisionClient(DAXO_Client* client) DAXO_NOEXCEPT;

/* DAXO_DeprovisionClient asks the agent to forget the client. Once the
 * broker has acknowledged the request, the library ends the daily
 * certificate checks, deletes "priv_key.key" and "cert.crt" and calls
 * OnDeprovisionClient (network thread); this
 * completion needs a deprovision callback to be set. Returns
 * DAXO_Error_InvalidArguments for a null or unprovisioned client, or the
 * result of handing the request to the transport. */
DAXO_EXPORT DAXO_Error DAXO_DeprovisionClient(DAXO_Client* client) DAXO_NOEXCEPT;

/* DAXO_ResetIdentity removes the client's key and certificate from its
 * certificate folder without asking the agent, so that a client whose
 * identity is broken or expired can provision again; the authority file
 * and the folder stay. The identifier DAXO_GetClientId returned is released
 * and the client counts as not provisioned. Call it from an application
 * thread while the client is neither connected nor provisioning: otherwise
 * it returns DAXO_Error_Busy and changes nothing. Returns
 * DAXO_Error_InvalidArguments for a null client or a call from a callback,
 * DAXO_Error_RemoveCertificates (with a line naming the file) when a file
 * cannot be removed, or DAXO_Error_Success. */
DAXO_EXPORT DAXO_Error DAXO_ResetIdentity(DAXO_Client* client) DAXO_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Connection
 * ---------------------------------------------------------------------- */

/* DAXO_Connect connects a provisioned client to the agent's broker with
 * mutual TLS (CaFile, and "cert.crt" and "priv_key.key" in CertFolder) and
 * starts the connection's network thread. It returns once the attempt has
 * started; OnConnect reports DAXO_Error_Success when the client's topics are
 * subscribed (DAXO_Error_ConnectionFailed when the broker refuses the
 * subscription), and again after every automatic reconnection (one attempt
 * a second after a loss; an attempt not accepted within 10 s, growing to
 * 60 s, is started again). A previous connection of the client is closed
 * and released first. Inside a callback it returns at once (see Threads
 * above). A connection that fails later is reported through OnDisconnect
 * (or OnConnect for a CONNACK refusal) with its reason; libmosquitto
 * resolves the host and may get through the TLS handshake inside this call,
 * and a failure found there is its result, named in the same log line, and
 * not retried: DAXO_Error_HostNotFound, DAXO_Error_ConnectionRefused,
 * DAXO_Error_BrokerCertificateRefused, DAXO_Error_ClientCertificateRefused,
 * DAXO_Error_TlsConnection. Other results: DAXO_Error_InvalidArguments for a
 * null or unprovisioned client, DAXO_Error_NoMemory, DAXO_Error_TlsSetFailed
 * (the certificate files cannot be used), DAXO_Error_PushStoreUnusable (the
 * push store's file cannot be opened or written, see PushStore; nothing is
 * connected), DAXO_Error_Errno,
 * DAXO_Error_NoThreadSupport, DAXO_Error_Unknown or DAXO_Error_Success. */
DAXO_EXPORT DAXO_Error DAXO_Connect(DAXO_Client* client) DAXO_NOEXCEPT;

/* DAXO_CheckConnection asks the agent to confirm the connection; the answer
 * arrives through OnCheckConnection. Returns DAXO_Error_InvalidArguments
 * for a null or unprovisioned client, DAXO_Error_NoConnectionToServer
 * before DAXO_Connect, or the result of handing the message to the
 * transport; during an outage the check is kept and sent on reconnection,
 * as DAXO_PushMetricValues describes. */
DAXO_EXPORT DAXO_Error DAXO_CheckConnection(DAXO_Client* client) DAXO_NOEXCEPT;

/* DAXO_Disconnect asks the broker to close the main connection and stops
 * its network thread; OnDisconnect then reports DAXO_Error_Success. A
 * client that is not connected is left alone. The connection closes at
 * once: a request whose delivery the broker has not yet completed (a
 * DAXO_DeprovisionClient made just before, say) is dropped, so wait for its
 * callback first. Inside a callback it returns
 * at once (see Threads above). Returns DAXO_Error_Success,
 * DAXO_Error_InvalidArguments or DAXO_Error_NoThreadSupport. */
DAXO_EXPORT DAXO_Error DAXO_Disconnect(DAXO_Client* client) DAXO_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Sensors
 *
 * Each request returns once the message is handed to the transport
 * (DAXO_Error_Success) or with the reason it was not; the agent's answer
 * arrives later through the reply callback named. Identifiers go into the
 * request's topic verbatim: a "/" in one adds topic levels, and one holding
 * "+" or "#" is refused by the transport (DAXO_Error_InvalidArguments). A
 * null client or argument, or a client that is not provisioned, gives
 * DAXO_Error_InvalidArguments; a lack of memory DAXO_Error_NoMemory, a
 * payload that cannot be composed DAXO_Error_ComposeJson.
 * ---------------------------------------------------------------------- */

/* DAXO_CreateSensor asks the agent to create a sensor named name; the
 * agent's id for it arrives through OnCreateSensor with the name. */
DAXO_EXPORT DAXO_Error DAXO_CreateSensor(DAXO_Client* client, const char* name) DAXO_NOEXCEPT;

/* DAXO_UpdateSensor asks the agent to rename sensor sensorId to sensorName;
 * answered through OnModifySensor. */
DAXO_EXPORT DAXO_Error DAXO_UpdateSensor(DAXO_Client* client, const char* sensorId,
                                         const char* sensorName) DAXO_NOEXCEPT;

/* DAXO_DeleteSensor asks the agent to delete sensor sensorId; answered
 * through OnDeleteSensor. */
DAXO_EXPORT DAXO_Error DAXO_DeleteSensor(DAXO_Client* client, const char* sensorId) DAXO_NOEXCEPT;

/* DAXO_ListSensors asks for the client's sensors; the list arrives through
 * OnListSensors. */
DAXO_EXPORT DAXO_Error DAXO_ListSensors(DAXO_Client* client) DAXO_NOEXCEPT;

/* DAXO_DescribeMetric asks for the definition and last value of metric
 * metricId of sensor sensorId; answered through OnDescribeMetric. */
DAXO_EXPORT DAXO_Error DAXO_DescribeMetric(DAXO_Client* client, const char* sensorId,
                                           const char* metricId) DAXO_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Metric definitions
 *
 * A schema container collects metric definitions, in order, for
 * DAXO_CreateMetrics (standard and custom entries) or DAXO_UpdateMetrics
 * (update entries). Strings are copied when added. A failed Add leaves the
 * container as it was; sending never changes it, so it can be sent again.
 * A container is used by one thread at a time.
 * ---------------------------------------------------------------------- */

/* DAXO_CreateMetricSchemaContainer returns a new empty container, released
 * with DAXO_DestroyMetricSchemaContainer, or null when memory runs out. */
DAXO_EXPORT DAXO_MetricSchemaContainer* DAXO_CreateMetricSchemaContainer(void) DAXO_NOEXCEPT;

/* DAXO_DestroyMetricSchemaContainer releases a container and its entries.
 * Returns DAXO_Error_InvalidArguments for null. */
DAXO_EXPORT DAXO_Error DAXO_DestroyMetricSchemaContainer(
    DAXO_MetricSchemaContainer* container) DAXO_NOEXCEPT;

/* DAXO_AddStandardMetricSchema adds a metric measured in value_unit (not
 * DAXO_ValueUnit_NoUnit). matchingId is the application's own id for it: the
 * agent's reply pairs it with the metric id it assigns. */
DAXO_EXPORT DAXO_Error DAXO_AddStandardMetricSchema(DAXO_MetricSchemaContainer* container,
                                                    const char* matchingId, const char* name,
                                                    DAXO_ValueUnit value_unit) DAXO_NOEXCEPT;

/* DAXO_AddCustomMetricSchema adds a metric of valueType (not
 * DAXO_ValueType_NoType) described by valueAnnotation. */
DAXO_EXPORT DAXO_Error DAXO_AddCustomMetricSchema(DAXO_MetricSchemaContainer* container,
                                                  const char* matchingId, const char* name,
                                                  DAXO_ValueType valueType,
                                                  const char* valueAnnotation) DAXO_NOEXCEPT;

/* DAXO_AddMetricUpdateSchema adds a change of metric metricId: a new name,
 * a new annotation, or both (null leaves one unchanged; not both null). */
DAXO_EXPORT DAXO_Error DAXO_AddMetricUpdateSchema(DAXO_MetricSchemaContainer* container,
                                                  const char* metricId, const char* name,
                                                  const char* valueAnnotation) DAXO_NOEXCEPT;

/* DAXO_CreateMetrics sends the container's definitions for sensor
 * sensorId; the agent's ids arrive through OnCreateMetrics. */
DAXO_EXPORT DAXO_Error DAXO_CreateMetrics(DAXO_Client* client, const char* sensorId,
                                          DAXO_MetricSchemaContainer* container) DAXO_NOEXCEPT;

/* DAXO_UpdateMetrics sends the container's changes for sensor sensorId;
 * answered through OnUpdateMetrics. */
DAXO_EXPORT DAXO_Error DAXO_UpdateMetrics(DAXO_Client* client, const char* sensorId,
                                          DAXO_MetricSchemaContainer* container) DAXO_NOEXCEPT;

/* DAXO_DeleteMetrics asks the agent to delete the first metricsCount ids of
 * metricIds (none of them null; a count of 0 is refused, a negative count
 * sends an empty list) from sensor sensorId; answered through
 * OnDeleteMetrics. */
DAXO_EXPORT DAXO_Error DAXO_DeleteMetrics(DAXO_Client* client, const char* sensorId,
                                          char** metricIds, int metricsCount) DAXO_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Metric values
 *
 * A value container collects values for metrics of one sensor, in order,
 * with an optional time for the whole batch. Pushing never changes it: to
 * send new values, destroy it and fill a new one. The development agent
 * reads the timestamp as milliseconds since the epoch (UTC); without one it
 * stamps the values with the time they arrive.
 * ---------------------------------------------------------------------- */

/* DAXO_CreateMetricValueContainer returns a new empty container, released
 * with DAXO_DestroyMetricValueContainer, or null when memory runs out. */
DAXO_EXPORT DAXO_MetricValueContainer* DAXO_CreateMetricValueContainer(void) DAXO_NOEXCEPT;

/* DAXO_DestroyMetricValueContainer releases a container and its values.
 * Returns DAXO_Error_InvalidArguments for null. */
DAXO_EXPORT DAXO_Error DAXO_DestroyMetricValueContainer(
    DAXO_MetricValueContainer* container) DAXO_NOEXCEPT;

/* The Add functions append one value for metric metricId (copied). A failed
 * Add (DAXO_Error_NoMemory) leaves the container's values as they were. */
DAXO_EXPORT DAXO_Error DAXO_AddIntegerMetricValue(DAXO_MetricValueContainer* container,
                                                  int64_t value,
                                                  const char* metricId) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_AddDoubleMetricValue(DAXO_MetricValueContainer* container,
                                                 double value, const char* metricId) DAXO_NOEXCEPT;
/* Any non-zero value is sent as true. */
DAXO_EXPORT DAXO_Error DAXO_AddBoolMetricValue(DAXO_MetricValueContainer* container, int value,
                                               const char* metricId) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_AddStringMetricValue(DAXO_MetricValueContainer* container,
                                                 const char* value,
                                                 const char* metricId) DAXO_NOEXCEPT;

/* DAXO_AddEpochTimeStamp sets the batch's time (a later call replaces it),
 * sent as a signed 64-bit number: milliseconds since the epoch for the
 * development agent. */
DAXO_EXPORT DAXO_Error DAXO_AddEpochTimeStamp(DAXO_MetricValueContainer* container,
                                              uint64_t epochTimestamp) DAXO_NOEXCEPT;

/* DAXO_PushMetricValues sends the container's values to sensor sensorId;
 * answered through OnPushMetricValues. An empty container is refused
 * (DAXO_Error_InvalidArguments).
 *
 * Before DAXO_Connect it returns DAXO_Error_NoConnectionToServer and
 * nothing is sent. After it, during an outage (from the OnDisconnect that
 * reports it until the OnConnect that ends it; the library reconnects by
 * itself), the values are kept in memory by the connection and sent once
 * the broker accepts it again, whatever the code returned: the first
 * pushes of an outage return DAXO_Error_NoConnectionToServer (libmosquitto
 * counts them against its twenty messages in flight), later ones
 * DAXO_Error_Success. Do not push such values again: they would arrive
 * twice. A push accepted as the broker goes down, before the library has
 * noticed, may be lost with the broker's state (sessions are clean), and
 * values sent while the agent is away are never delivered to it. Only the
 * answer through OnPushMetricValues confirms that the agent has the
 * values. DAXO_Disconnect and DAXO_DeleteClient drop what is still kept. */
DAXO_EXPORT DAXO_Error DAXO_PushMetricValues(DAXO_Client* client, const char* sensorId,
                                             DAXO_MetricValueContainer* container) DAXO_NOEXCEPT;

/* With a push store (PushStore in the configuration, "memory" or a file's
 * path), DAXO_PushMetricValues keeps each push until the agent answers it
 * and the paragraph above no longer applies:
 *   - It returns DAXO_Error_Success once the push is kept (written to the
 *     file, with a path), connected or not; DAXO_Error_PushStoreFull when
 *     the store is full under the "refuse" policy or the push alone exceeds
 *     PushStoreMaxBytes; DAXO_Error_PushStoreUnusable when the file cannot
 *     be written; DAXO_Error_NoConnectionToServer before DAXO_Connect,
 *     which opens the store; DAXO_Error_InvalidArguments, with nothing
 *     kept, for a sensor id holding "/", "+" or "#".
 *   - Kept pushes are sent only while connected, and only after the agent
 *     has answered a connection check on that connection; oldest first,
 *     new pushes behind the backlog, in batches of at most 64, each
 *     followed by a connection check of the library's; the next batch
 *     waits for that check's answer. A batch whose check is unanswered for
 *     10 s while connected (the library then checks the connection every
 *     2 s until answered), or whose connection is lost, is sent again.
 *   - Guarantee: every kept push reaches the agent at least once, or is
 *     reported through OnPushDropped. A push arrives twice only when a
 *     push, an answer or a check of its batch was lost: when the check's
 *     answer comes, a sensor with fewer answers than pushes in the batch
 *     has all of them sent again, since answers cannot tell which one was
 *     lost; its pushes then arrive out of order too. This relies on the
 *     agent handling the messages of a client in the order they arrive,
 *     across its topics, and answering in that order.
 *   - Every push gets one OnPushMetricValues, an error answer included,
 *     matched in order per sensor, called once the check after its batch
 *     is answered and proves it: the application is never told of a push
 *     that is then sent again. An answer that matches no push awaiting
 *     one is logged and not delivered. Connection checks, the library's
 *     and DAXO_CheckConnection's (sent at QoS 0 among the pushes, so that
 *     they keep their place), are answered to their sender in the order
 *     they were sent; the library's never reach OnCheckConnection.
 *   - When the store is full, "drop-oldest" (the default) drops the oldest
 *     pushes to make room, "refuse" refuses the new one. A memory store's
 *     pushes are dropped by DAXO_DeleteClient and by the completion of a
 *     deprovisioning; DAXO_Disconnect keeps them for the next DAXO_Connect.
 *     A file keeps them for the next DAXO_Connect of a client using it,
 *     after a restart too. Every drop reaches OnPushDropped.
 *   - With a file, PushStoreSync "normal" (the default) loses nothing when
 *     the process dies; a power cut may lose the last pushes, never the
 *     file. "full" loses nothing on a power cut, at an fsync a push. */

/* DAXO_GetWaitingPushCount writes into *count how many pushes the client's
 * push store keeps (not yet answered by the agent); 0 when there is no
 * store or before DAXO_Connect opens it. Any thread. Returns
 * DAXO_Error_InvalidArguments for a null client or count, else
 * DAXO_Error_Success. */
DAXO_EXPORT DAXO_Error DAXO_GetWaitingPushCount(DAXO_Client* client, size_t* count) DAXO_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Error reports: the application's own failures, its own code and text.
 * No answer follows; the result says whether the report was handed to the
 * transport.
 * ---------------------------------------------------------------------- */

DAXO_EXPORT DAXO_Error DAXO_ReportClientError(DAXO_Client* client, int error,
                                              const char* errMessage) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_ReportSensorError(DAXO_Client* client, const char* sensorId,
                                              int error, const char* errMessage) DAXO_NOEXCEPT;
DAXO_EXPORT DAXO_Error DAXO_ReportMetricError(DAXO_Client* client, const char* sensorId,
                                              const char* metricId, int error,
                                              const char* errMessage) DAXO_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Record destroyers; each accepts null.
 * ---------------------------------------------------------------------- */

/* DAXO_DestroySensorMetadata releases a record delivered by
 * OnCreateSensorJob. Records of a DAXO_SensorsInfo are not passed here. */
DAXO_EXPORT void DAXO_DestroySensorMetadata(DAXO_SensorMetadata* sensorMetadata) DAXO_NOEXCEPT;

/* DAXO_DestroySensorsInfo releases a list delivered by OnListSensors,
 * with its records. */
DAXO_EXPORT void DAXO_DestroySensorsInfo(DAXO_SensorsInfo* sensorsInfo) DAXO_NOEXCEPT;

/* DAXO_DestroyCreatedMetrics releases a record delivered by
 * OnCreateMetrics. */
DAXO_EXPORT void DAXO_DestroyCreatedMetrics(DAXO_CreatedMetrics* createdMetrics) DAXO_NOEXCEPT;

/* DAXO_DestroyMetricMetadata releases a record delivered by
 * OnDescribeMetric. */
DAXO_EXPORT void DAXO_DestroyMetricMetadata(DAXO_MetricMetadata* metricMetadata) DAXO_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Version
 * ---------------------------------------------------------------------- */

/* DAXO_GetVersion returns the library's version, "MAJOR.MINOR.PATCH" (the
 * version of its Debian packages, of its pkg-config file and of its CMake
 * package). The string is static and belongs to the library: never free
 * it. It may be called at any time, from any thread, before DAXO_LibInit. */
DAXO_EXPORT const char* DAXO_GetVersion(void) DAXO_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* DAXO_CLIENT_H */

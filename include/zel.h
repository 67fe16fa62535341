/*
 * Zel Device Agent: the interface between the television firmware and libzel.so.
 *
 * Every function returns one of the ZelResult codes. Numbers crossing this
 * interface are 32-bit unsigned integers; texts are NUL-terminated 8-bit
 * strings. Strings handed back in a ZelStatus belong to the agent until the
 * host gives them back with ZelFreeStatus.
 */
#ifndef ZEL_H
#define ZEL_H

#include <stdint.h>

#if defined(ZEL_BUILDING_LIBRARY)
#define ZEL_API __attribute__((visibility("default")))
#else
#define ZEL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes. */
typedef uint32_t ZelResult;
#define ZelResultSuccess 0u
#define ZelResultNotInitialized 1u
#define ZelResultAlreadyInitialized 2u
#define ZelResultBusy 3u
#define ZelResultBadArgument 5u
#define ZelResultBadTime 6u

/* Lifecycle of the agent as reported in ZelStatus.state. */
typedef uint32_t DeviceAgentState;
#define DeviceAgentStateUninitialized 0u
#define DeviceAgentStateInitialized 1u
#define DeviceAgentStateTerminating 2u
#define DeviceAgentStateFactoryResetting 3u

/* How ZelGetStatus answers: at once, or after the next status change. */
typedef uint32_t ZelStatusMethod;
#define ZelStatusMethodNow 0u
#define ZelStatusMethodWaitForChange 1u

/* Remote-support session state as reported in ZelStatus.sessionState. */
typedef uint32_t ZelSessionState;
#define ZelSessionStateInitializing 0u
#define ZelSessionStateTerminating 1u
#define ZelSessionStateSuspending 2u
#define ZelSessionStateResuming 3u
#define ZelSessionStateReady 4u
#define ZelSessionStateJoined 5u
#define ZelSessionStateNone 6u
#define ZelSessionStateDisabled 7u
#define ZelSessionStateUnsupported 8u

/* Software update as reported in ZelStatus.updateState, updateSource and
 * updatePermission. */
typedef uint32_t ZelSoftwareUpdateState;
#define ZelSoftwareUpdateStateNotAvailable 0u
#define ZelSoftwareUpdateStateFailed 1u
#define ZelSoftwareUpdateStateAvailable 2u
#define ZelSoftwareUpdateStateDownloaded 3u
#define ZelSoftwareUpdateStateConfirmed 4u
#define ZelSoftwareUpdateStateUnsupported 5u

typedef uint32_t ZelSoftwareUpdateSource;
#define ZelSoftwareUpdateSourceLocal 0u
#define ZelSoftwareUpdateSourceNetwork 1u

typedef uint32_t ZelSoftwareUpdatePermission;
#define ZelSoftwareUpdatePermissionNone 0u
#define ZelSoftwareUpdatePermissionDownload 1u
#define ZelSoftwareUpdatePermissionConfirm 2u

/* Consent state as reported in ZelStatus.consentState. */
#define ZelConsentStateUnsupported 5u

/* The status record. The host allocates it; ZelGetStatus fills it and
 * ZelFreeStatus releases its strings. Members keep this order. */
typedef struct ZelStatus {
    uint32_t state;        /* DeviceAgentState */
    uint32_t testMode;     /* 0 or 1 */
    uint32_t sessionState; /* remote-support session state, 7 when uninitialised */
    char* sdkVersion;
    char* deviceId;           /* assigned by the cloud */
    char* opid;               /* operator id from the device certificate */
    char* cloud;              /* cloud instance from the device certificate */
    char* allowedDataItemIds; /* always empty */
    char* consentUrl;
    char* sessionInfo;   /* session code while a session is ready or joined */
    char* swVersion;     /* device software version */
    char* updateVersion; /* offered update, while one is offered */
    char* updateDisplayText;
    char* updateStagingFile;
    char* updateHash;
    uint32_t updateState;
    uint32_t updateSource; /* 1 (network) when uninitialised */
    uint32_t updatePermission;
    uint32_t updateMandatory;
    uint32_t updateAutoAnswer;
    uint32_t updatePercentDownloaded;
    uint32_t consentState; /* always ZelConsentStateUnsupported */
} ZelStatus;

/* Starts the agent with the identity, configuration and device documents (JSON texts). */
ZEL_API ZelResult ZelInit(const char* identity, const char* config, const char* device);

/* Starts the shut-down and returns at once; the status reaches Uninitialized when it is done. */
ZEL_API ZelResult ZelTerm(void);

/* Like ZelTerm, and forgets every persisted value on the way. */
ZEL_API ZelResult ZelFactoryReset(void);

/* Forgets every persisted value under the configuration's persistent path, while uninitialised. */
ZEL_API ZelResult ZelFactoryResetOffline(const char* config);

/* Reports the device as a test device from now on. */
ZEL_API ZelResult ZelEnableTestMode(void);

/* Sets the OEM message passed to the cloud at the next synchronisation. */
ZEL_API ZelResult ZelSetOemMsg(const char* msg);

/* Fills *status; with ZelStatusMethodWaitForChange it first waits for the next change. */
ZEL_API ZelResult ZelGetStatus(ZelStatusMethod method, ZelStatus* status);

/* Releases the strings of a status record; harmless when repeated. */
ZEL_API ZelResult ZelFreeStatus(ZelStatus* status);

/* Writes a host message to the agent's log: severity 0 (most verbose) to 5 (fatal). */
ZEL_API ZelResult ZelLogMessage(uint32_t severity, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

/* Opens a remote-support session with the configured number of code digits;
 * allowSessionCodeBypass is 0 or 1. The code appears in ZelStatus.sessionInfo. */
ZEL_API ZelResult ZelSessionInit(uint32_t allowSessionCodeBypass);

/* The same with a session code of sessionCodeDigits digits (4 to 16). */
ZEL_API ZelResult ZelSessionInitCodeDigits(uint32_t allowSessionCodeBypass,
                                           uint32_t sessionCodeDigits);

/* Ends the remote-support session. */
ZEL_API ZelResult ZelSessionTerm(void);

/* Asks the cloud for a software update at the next synchronisation. */
ZEL_API ZelResult ZelCheckForSoftwareUpdate(void);

/* Where updates come from: ZelSoftwareUpdateSourceNetwork (location ignored),
 * or ZelSoftwareUpdateSourceLocal with the path of a local payload file. */
ZEL_API ZelResult ZelSetSoftwareUpdateSource(uint32_t source, const char* location);

/* What the agent may do with an offered update: nothing, download it, or
 * download it and confirm it for installation. */
ZEL_API ZelResult ZelSetSoftwareUpdatePermission(uint32_t permission);

/* Asks the provisioning service for work at once. */
ZEL_API ZelResult ZelCheckForDrmpUpdate(void);

#ifdef __cplusplus
}
#endif

#endif /* ZEL_H */

/* Drives libzel.so the way firmware written in C does: nothing but zel.h.
 * The configuration answers every "da" call through injector entries, so the
 * agent runs its whole lifecycle without a network. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "zel.h"

static int failures = 0;

#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                              \
        }                                                                            \
    } while (0)

static char* readFile(const char* path) {
    FILE* file = fopen(path, "rb");
    char* text;
    long size;
    if (file == NULL) {
        return NULL;
    }
    fseek(file, 0, SEEK_END);
    size = ftell(file);
    fseek(file, 0, SEEK_SET);
    text = malloc((size_t)size + 1);
    if (text != NULL && fread(text, 1, (size_t)size, file) == (size_t)size) {
        text[size] = '\0';
    }
    fclose(file);
    return text;
}

static uint32_t currentState(void) {
    ZelStatus status;
    uint32_t state;
    memset(&status, 0, sizeof status);
    ZelGetStatus(ZelStatusMethodNow, &status);
    state = status.state;
    ZelFreeStatus(&status);
    return state;
}

/* Waits through status changes (method 1) until the agent is in `wanted`. */
static void waitForState(uint32_t wanted) {
    ZelStatus status;
    while (currentState() != wanted) {
        memset(&status, 0, sizeof status);
        ZelGetStatus(ZelStatusMethodWaitForChange, &status);
        ZelFreeStatus(&status);
    }
}

static void checkUninitializedStatus(void) {
    ZelStatus status;
    memset(&status, 0xAB, sizeof status);
    CHECK(ZelGetStatus(ZelStatusMethodNow, &status) == ZelResultSuccess);
    CHECK(status.state == DeviceAgentStateUninitialized);
    CHECK(status.sessionState == 7);
    CHECK(status.updateSource == 1);
    CHECK(status.consentState == ZelConsentStateUnsupported);
    CHECK(status.testMode == 0);
    CHECK(status.sdkVersion == NULL && status.opid == NULL && status.updateHash == NULL);
    CHECK(ZelFreeStatus(&status) == ZelResultSuccess);
    CHECK(ZelFreeStatus(&status) == ZelResultSuccess);
}

static void checkBadArguments(void) {
    ZelStatus status;
    memset(&status, 0, sizeof status);
    CHECK(ZelInit(NULL, "{}", "{}") == ZelResultBadArgument);
    CHECK(ZelInit("{}", NULL, "{}") == ZelResultBadArgument);
    CHECK(ZelInit("{}", "{}", NULL) == ZelResultBadArgument);
    CHECK(ZelFactoryResetOffline(NULL) == ZelResultBadArgument);
    CHECK(ZelSetOemMsg(NULL) == ZelResultBadArgument);
    CHECK(ZelGetStatus(2, &status) == ZelResultBadArgument);
    CHECK(ZelGetStatus(ZelStatusMethodNow, NULL) == ZelResultBadArgument);
    CHECK(ZelFreeStatus(NULL) == ZelResultBadArgument);
    CHECK(ZelLogMessage(6, "x") == ZelResultBadArgument);
    CHECK(ZelLogMessage(0, NULL) == ZelResultBadArgument);
    /* Calls that need a running agent. */
    CHECK(ZelTerm() == ZelResultNotInitialized);
    CHECK(ZelFactoryReset() == ZelResultNotInitialized);
    CHECK(ZelEnableTestMode() == ZelResultNotInitialized);
    CHECK(ZelSetOemMsg("hello") == ZelResultNotInitialized);
}

int main(int argc, char** argv) {
    char dir[] = "/tmp/zelc.XXXXXX";
    char path[512];
    char config[1024];
    char* identity;
    char* device;
    ZelStatus status;
    ZelResult second;

    if (argc < 2 || mkdtemp(dir) == NULL) {
        fprintf(stderr, "usage: %s SOURCE_DIR\n", argv[0]);
        return 2;
    }
    snprintf(path, sizeof path, "%s/samples/identity.json", argv[1]);
    identity = readFile(path);
    snprintf(path, sizeof path, "%s/samples/device.json", argv[1]);
    device = readFile(path);
    if (identity == NULL || device == NULL) {
        fprintf(stderr, "cannot read the sample documents under %s\n", argv[1]);
        return 2;
    }
    /* Every "da" call is answered by an injector: no network needed. */
    snprintf(config, sizeof config,
             "{\"core\": {\"persistentPath\": \"%s\"}, \"injectors\": ["
             "{\"suffix\": \"da/gidtoken\", \"responses\": [{\"body\": {\"daGidToken\": \"c\"}}]},"
             "{\"suffix\": \"da/state\", \"responses\": [{\"body\": {\"daSynchronized\": true}}]},"
             "{\"suffix\": \"da/notification\", \"responses\": [{}]}]}",
             dir);

    checkUninitializedStatus();
    checkBadArguments();

    CHECK(ZelInit(identity, config, device) == ZelResultSuccess);
    CHECK(ZelInit(identity, config, device) == ZelResultAlreadyInitialized);
    CHECK(ZelFactoryResetOffline(config) == ZelResultAlreadyInitialized);
    CHECK(ZelLogMessage(2, "host says %s %d", "hello", 42) == ZelResultSuccess);
    CHECK(ZelEnableTestMode() == ZelResultSuccess);
    CHECK(ZelSetOemMsg("from C") == ZelResultSuccess);
    memset(&status, 0, sizeof status);
    CHECK(ZelGetStatus(ZelStatusMethodNow, &status) == ZelResultSuccess);
    CHECK(status.state == DeviceAgentStateInitialized);
    CHECK(status.testMode == 1);
    CHECK(status.sdkVersion != NULL && strcmp(status.sdkVersion, "4.8.0-255-g4399f3ce") == 0);
    CHECK(status.opid != NULL && strcmp(status.opid, "FFFFFF0ACC") == 0);
    CHECK(status.cloud != NULL && strcmp(status.cloud, "zel.localhost") == 0);
    CHECK(status.allowedDataItemIds != NULL && status.allowedDataItemIds[0] == '\0');
    CHECK(status.consentState == ZelConsentStateUnsupported);
    CHECK(ZelFreeStatus(&status) == ZelResultSuccess);
    CHECK(status.sdkVersion == NULL && status.opid == NULL);
    CHECK(ZelFreeStatus(&status) == ZelResultSuccess);

    CHECK(ZelTerm() == ZelResultSuccess);
    /* Either still stopping, or already stopped. */
    second = ZelTerm();
    CHECK(second == ZelResultBusy || second == ZelResultNotInitialized);
    waitForState(DeviceAgentStateUninitialized);
    checkUninitializedStatus();
    CHECK(ZelFactoryResetOffline(config) == ZelResultSuccess);

    snprintf(path, sizeof path, "rm -rf '%s'", dir);
    if (system(path) != 0) {
        fprintf(stderr, "could not remove %s\n", dir);
    }
    free(identity);
    free(device);
    if (failures == 0) {
        printf("lifecycle: all checks passed\n");
    }
    return failures == 0 ? 0 : 1;
}

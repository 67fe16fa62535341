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

static char* readSample(const char* dir, const char* name) {
    static char text[16384];
    char path[512];
    FILE* file;
    snprintf(path, sizeof path, "%s/samples/%s", dir, name);
    file = fopen(path, "rb");
    text[file != NULL ? fread(text, 1, sizeof text - 1, file) : 0] = '\0';
    return file != NULL && fclose(file) == 0 ? strdup(text) : NULL;
}

int main(int argc, char** argv) {
    char dir[] = "/tmp/zelc.XXXXXX";
    char config[1024];
    char* identity;
    char* device;
    ZelStatus status;

    if (argc < 2 || mkdtemp(dir) == NULL) {
        fprintf(stderr, "usage: %s SOURCE_DIR\n", argv[0]);
        return 2;
    }
    identity = readSample(argv[1], "identity.json");
    device = readSample(argv[1], "device.json");
    snprintf(config, sizeof config,
             "{\"core\": {\"persistentPath\": \"%s\"}, \"injectors\": ["
             "{\"suffix\": \"da/gidtoken\", \"responses\": [{\"body\": {\"daGidToken\": \"c\"}}]},"
             "{\"suffix\": \"da/state\", \"responses\": [{\"body\": {\"daSynchronized\": true}}]},"
             "{\"suffix\": \"da/notification\", \"responses\": [{}]}]}",
             dir);

    CHECK(ZelInit(NULL, config, device) == ZelResultBadArgument);
    CHECK(ZelTerm() == ZelResultNotInitialized);
    CHECK(ZelInit(identity, config, device) == ZelResultSuccess);
    CHECK(ZelLogMessage(2, "host says %s %d", "hello", 42) == ZelResultSuccess);
    CHECK(ZelEnableTestMode() == ZelResultSuccess);
    memset(&status, 0, sizeof status);
    CHECK(ZelGetStatus(ZelStatusMethodNow, &status) == ZelResultSuccess);
    CHECK(status.state == DeviceAgentStateInitialized);
    CHECK(status.testMode == 1);
    CHECK(status.opid != NULL && strcmp(status.opid, "FFFFFF0ACC") == 0);
    CHECK(ZelFreeStatus(&status) == ZelResultSuccess);
    CHECK(status.opid == NULL);

    CHECK(ZelTerm() == ZelResultSuccess);
    while (status.state != DeviceAgentStateUninitialized) {
        ZelFreeStatus(&status);
        CHECK(ZelGetStatus(ZelStatusMethodWaitForChange, &status) == ZelResultSuccess);
    }
    ZelFreeStatus(&status);
    CHECK(ZelFactoryResetOffline(config) == ZelResultSuccess);
    rmdir(dir);
    free(identity);
    free(device);
    return failures == 0 ? 0 : 1;
}

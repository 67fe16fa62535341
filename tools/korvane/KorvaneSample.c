/*
 * Sample vendor plug-in for the Zel Device Agent.
 *
 * Device values: model "KorvaneSample", subModel "KS-1", brand "Korvane" and
 * platform "KorvaneOS" (or "KorvaneOS (not initialized)" when the agent did
 * not call "initialize" first); the other values keep the agent's defaults.
 *
 * Key pass phrase ("GetZelPassword"), first found of:
 *   1. the environment variable ZEL_KORVANE_SAMPLE_PASSWORD;
 *   2. the first line of the file next to this library named like it plus
 *      ".pass" (libzel_korvane_sample.so.pass).
 * Neither: no pass phrase (returns 0).
 *
 * Commands: replaces "FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES" (answers
 * "SOFTWARE_CURRENT_FLAG": false) and adds "KORVANE_SAMPLE_ECHO", which
 * answers {"ECHO": <inputs>}. Built with KORVANE_SAMPLE_WITHOUT_COMMANDS the
 * library has no "createCommandsExt".
 *
 * Video: 320x180 RGBA colour bars, of which the left 300 columns are visible.
 * GStreamer plug-ins: ZEL_KORVANE_SAMPLE_GST_PATH, else the system directory.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zel_korvane.h"

#define KORVANE_EXPORT __attribute__((visibility("default")))

enum { kWidth = 320, kHeight = 180, kVisibleWidth = 300 };

static int initialized = 0;

static void setValue(char* field, const char* value) {
    strncpy(field, value, ZEL_KORVANE_VALUE_SIZE - 1);
    field[ZEL_KORVANE_VALUE_SIZE - 1] = '\0';
}

KORVANE_EXPORT void initialize(void) {
    initialized = 1;
}

KORVANE_EXPORT int32_t createDeviceValuesExt(ZelKorvaneDeviceValues* values) {
    if (values == NULL) {
        return 1;
    }
    setValue(values->model, "KorvaneSample");
    setValue(values->subModel, "KS-1");
    setValue(values->brand, "Korvane");
    setValue(values->platform, initialized ? "KorvaneOS" : "KorvaneOS (not initialized)");
    return 0;
}

static uint32_t copyPassword(const char* password, char* buf, uint32_t size) {
    size_t length = strcspn(password, "\r\n");
    if (length >= size) {
        return (uint32_t)length;
    }
    memcpy(buf, password, length);
    buf[length] = '\0';
    return (uint32_t)length;
}

KORVANE_EXPORT uint32_t GetZelPassword(char* buf, uint32_t size) {
    const char* fromEnvironment = getenv("ZEL_KORVANE_SAMPLE_PASSWORD");
    Dl_info info;
    char path[4096];
    char line[1024];
    FILE* file;
    uint32_t length = 0;

    if (buf == NULL || size == 0) {
        return 0;
    }
    buf[0] = '\0';
    if (fromEnvironment != NULL) {
        return copyPassword(fromEnvironment, buf, size);
    }
    if (dladdr(&initialized, &info) == 0 || info.dli_fname == NULL) {
        return 0;
    }
    if (snprintf(path, sizeof(path), "%s.pass", info.dli_fname) >= (int)sizeof(path)) {
        return 0;
    }
    file = fopen(path, "r");
    if (file == NULL) {
        return 0;
    }
    if (fgets(line, sizeof(line), file) != NULL) {
        length = copyPassword(line, buf, size);
    }
    fclose(file);
    return length;
}

#ifndef KORVANE_SAMPLE_WITHOUT_COMMANDS

static uint32_t checkForUpdates(void* context, uint32_t operation, const char* inputsJson,
                                ZelKorvaneWriteOutput write, void* writeContext) {
    (void)context;
    (void)inputsJson;
    if (operation != ZEL_KORVANE_OPERATION_EXECUTE) {
        return 4;
    }
    write(writeContext, "{\"SOFTWARE_CURRENT_FLAG\": false}");
    return 0;
}

static uint32_t echo(void* context, uint32_t operation, const char* inputsJson,
                     ZelKorvaneWriteOutput write, void* writeContext) {
    char* text;
    size_t size;
    (void)context;
    if (operation != ZEL_KORVANE_OPERATION_EXECUTE) {
        return 4;
    }
    if (inputsJson == NULL) {
        inputsJson = "null";
    }
    size = strlen(inputsJson) + 16;
    text = malloc(size);
    if (text == NULL) {
        return 1;
    }
    snprintf(text, size, "{\"ECHO\": %s}", inputsJson);
    write(writeContext, text);
    free(text);
    return 0;
}

KORVANE_EXPORT void createCommandsExt(ZelKorvaneRegisterCommand registerCommand, void* registry) {
    ZelKorvaneCommand command;

    command.name = "FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES";
    command.type = 1;
    command.version = 0;
    command.timeToComplete = 0;
    command.operations = ZEL_KORVANE_OPERATION_EXECUTE;
    command.handler = checkForUpdates;
    command.context = NULL;
    registerCommand(registry, &command);

    command.name = "KORVANE_SAMPLE_ECHO";
    command.type = 3;
    command.version = 1;
    command.timeToComplete = 10;
    command.operations = ZEL_KORVANE_OPERATION_EXECUTE;
    command.handler = echo;
    command.context = NULL;
    registerCommand(registry, &command);
}

#endif

KORVANE_EXPORT int32_t fillVideoBufferExt(uint8_t* buffer, uint32_t size, uint32_t layer) {
    /* Eight vertical bars; the video layer alone is drawn darker. */
    static const uint8_t bars[8][3] = {{255, 255, 255}, {255, 255, 0}, {0, 255, 255}, {0, 255, 0},
                                       {255, 0, 255},   {255, 0, 0},   {0, 0, 255},   {0, 0, 0}};
    const uint32_t frameSize = (uint32_t)kWidth * kHeight * 4;
    uint32_t x;
    uint32_t y;

    if (buffer == NULL || size < frameSize || layer > ZEL_KORVANE_LAYER_GRAPHICS_VIDEO) {
        return -1;
    }
    for (y = 0; y < kHeight; ++y) {
        for (x = 0; x < kWidth; ++x) {
            const uint8_t* colour = bars[x * 8 / kWidth];
            uint8_t* pixel = buffer + ((size_t)y * kWidth + x) * 4;
            uint8_t shift = layer == ZEL_KORVANE_LAYER_VIDEO ? 1 : 0;
            pixel[0] = (uint8_t)(colour[0] >> shift);
            pixel[1] = (uint8_t)(colour[1] >> shift);
            pixel[2] = (uint8_t)(colour[2] >> shift);
            pixel[3] = 255;
        }
    }
    return (int32_t)frameSize;
}

KORVANE_EXPORT const char* getGstreamerPathExt(void) {
    const char* path = getenv("ZEL_KORVANE_SAMPLE_GST_PATH");
    return path != NULL ? path : KORVANE_SAMPLE_GST_DIR;
}

KORVANE_EXPORT uint32_t getVideoWidthExt(uint32_t* visible) {
    if (visible != NULL) {
        *visible = kVisibleWidth;
    }
    return kWidth;
}

KORVANE_EXPORT uint32_t getVideoHeightExt(uint32_t* visible) {
    if (visible != NULL) {
        *visible = kHeight;
    }
    return kHeight;
}

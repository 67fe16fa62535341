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
 * Video: a moving test picture (scrolling colour bars, a travelling box and
 * the UTC time to a tenth of a second), 1280x720 RGBA unless
 * ZEL_KORVANE_SAMPLE_VIDEO_SIZE says "WxH"; the right 1/32 of each row is a
 * magenta border outside the visible part. The VIDEO layer is darker.
 * GStreamer plug-ins: ZEL_KORVANE_SAMPLE_GST_PATH, else the system directory.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "zel_korvane.h"

#define KORVANE_EXPORT __attribute__((visibility("default")))

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

/* The frame size: ZEL_KORVANE_SAMPLE_VIDEO_SIZE ("WxH"), else 1280x720. The
 * right 1/32 of each row is a magenta border that the agent crops away. */
static void frameSize(uint32_t* width, uint32_t* height) {
    const char* text = getenv("ZEL_KORVANE_SAMPLE_VIDEO_SIZE");
    unsigned w = 0;
    unsigned h = 0;
    if (text == NULL || sscanf(text, "%ux%u", &w, &h) != 2 || w < 64 || h < 36 || w > 3840 ||
        h > 2160) {
        w = 1280;
        h = 720;
    }
    *width = w;
    *height = h;
}

/* Digits 0-9 and ':' / '.' as 5x7 bitmaps, one byte per row, high bits left. */
static const uint8_t kFont[12][7] = {
    {0x70, 0x88, 0x98, 0xa8, 0xc8, 0x88, 0x70}, {0x20, 0x60, 0x20, 0x20, 0x20, 0x20, 0x70},
    {0x70, 0x88, 0x08, 0x10, 0x20, 0x40, 0xf8}, {0xf8, 0x10, 0x20, 0x10, 0x08, 0x88, 0x70},
    {0x10, 0x30, 0x50, 0x90, 0xf8, 0x10, 0x10}, {0xf8, 0x80, 0xf0, 0x08, 0x08, 0x88, 0x70},
    {0x30, 0x40, 0x80, 0xf0, 0x88, 0x88, 0x70}, {0xf8, 0x08, 0x10, 0x20, 0x40, 0x40, 0x40},
    {0x70, 0x88, 0x88, 0x70, 0x88, 0x88, 0x70}, {0x70, 0x88, 0x88, 0x78, 0x08, 0x10, 0x60},
    {0x00, 0x60, 0x60, 0x00, 0x60, 0x60, 0x00}, {0x00, 0x00, 0x00, 0x00, 0x00, 0x60, 0x60},
};

static void fill(uint8_t* frame, uint32_t width, uint32_t x0, uint32_t y0, uint32_t w, uint32_t h,
                 const uint8_t rgb[3]) {
    uint32_t x;
    uint32_t y;
    for (y = y0; y < y0 + h; ++y) {
        for (x = x0; x < x0 + w; ++x) {
            uint8_t* pixel = frame + ((size_t)y * width + x) * 4;
            pixel[0] = rgb[0];
            pixel[1] = rgb[1];
            pixel[2] = rgb[2];
        }
    }
}

/* The wall clock as "HH:MM:SS.t" in white on black, top left. */
static void drawClock(uint8_t* frame, uint32_t width, uint32_t height, const struct timespec* now) {
    static const uint8_t white[3] = {255, 255, 255};
    static const uint8_t black[3] = {0, 0, 0};
    struct tm utc;
    char text[40];
    uint32_t scale = height / 90 > 0 ? height / 90 : 1;
    uint32_t i;
    time_t seconds = now->tv_sec;
    gmtime_r(&seconds, &utc);
    snprintf(text, sizeof(text), "%02d:%02d:%02d.%01ld", utc.tm_hour, utc.tm_min, utc.tm_sec,
             now->tv_nsec / 100000000L);
    fill(frame, width, 0, 0, (uint32_t)strlen(text) * 6 * scale + 2 * scale, 9 * scale, black);
    for (i = 0; text[i] != '\0'; ++i) {
        int glyph = text[i] == ':' ? 10 : text[i] == '.' ? 11 : text[i] - '0';
        uint32_t row;
        uint32_t column;
        for (row = 0; row < 7; ++row) {
            for (column = 0; column < 5; ++column) {
                if (kFont[glyph][row] & (0x80 >> column)) {
                    fill(frame, width, scale + (i * 6 + column) * scale, scale + row * scale, scale,
                         scale, white);
                }
            }
        }
    }
}

KORVANE_EXPORT int32_t fillVideoBufferExt(uint8_t* buffer, uint32_t size, uint32_t layer) {
    static const uint8_t bars[8][3] = {{255, 255, 255}, {255, 255, 0}, {0, 255, 255}, {0, 255, 0},
                                       {255, 0, 255},   {255, 0, 0},   {0, 0, 255},   {0, 0, 0}};
    static const uint8_t magenta[3] = {255, 0, 255};
    static const uint8_t white[3] = {255, 255, 255};
    uint32_t width;
    uint32_t height;
    uint32_t visible;
    uint32_t frameBytes;
    uint32_t x;
    uint32_t y;
    uint32_t shift = layer == ZEL_KORVANE_LAYER_VIDEO ? 1 : 0;
    uint32_t offset;
    uint32_t box;
    uint32_t travel;
    uint64_t tenths;
    struct timespec now;

    frameSize(&width, &height);
    visible = width - width / 32;
    frameBytes = width * height * 4;
    if (buffer == NULL || size < frameBytes || layer > ZEL_KORVANE_LAYER_GRAPHICS_VIDEO) {
        return -1;
    }
    clock_gettime(CLOCK_REALTIME, &now);
    tenths = (uint64_t)now.tv_sec * 10 + (uint64_t)(now.tv_nsec / 100000000L);
    /* The bars scroll a 64th of the width every tenth of a second. */
    offset = (uint32_t)(tenths % 64) * (visible / 64);
    for (y = 0; y < height; ++y) {
        uint8_t* row = buffer + (size_t)y * width * 4;
        for (x = 0; x < visible; ++x) {
            const uint8_t* colour = bars[((x + offset) % visible) * 8 / visible];
            row[x * 4 + 0] = (uint8_t)(colour[0] >> shift);
            row[x * 4 + 1] = (uint8_t)(colour[1] >> shift);
            row[x * 4 + 2] = (uint8_t)(colour[2] >> shift);
            row[x * 4 + 3] = 255;
        }
        for (; x < width; ++x) {
            row[x * 4 + 0] = magenta[0];
            row[x * 4 + 1] = magenta[1];
            row[x * 4 + 2] = magenta[2];
            row[x * 4 + 3] = 255;
        }
    }
    /* A box that crosses the picture's lower half every ten seconds. */
    box = height / 8;
    travel = visible - box;
    fill(buffer, width, (uint32_t)((tenths % 100) * travel / 100), height - 2 * box, box, box,
         white);
    drawClock(buffer, width, height, &now);
    return (int32_t)frameBytes;
}

KORVANE_EXPORT const char* getGstreamerPathExt(void) {
    const char* path = getenv("ZEL_KORVANE_SAMPLE_GST_PATH");
    return path != NULL ? path : KORVANE_SAMPLE_GST_DIR;
}

KORVANE_EXPORT uint32_t getVideoWidthExt(uint32_t* visible) {
    uint32_t width;
    uint32_t height;
    frameSize(&width, &height);
    if (visible != NULL) {
        *visible = width - width / 32;
    }
    return width;
}

KORVANE_EXPORT uint32_t getVideoHeightExt(uint32_t* visible) {
    uint32_t width;
    uint32_t height;
    frameSize(&width, &height);
    if (visible != NULL) {
        *visible = height;
    }
    return height;
}

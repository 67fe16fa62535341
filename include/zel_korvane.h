/*
 * Zel Device Agent: the interface of the vendor plug-in library.
 *
 * The agent loads the plug-in (by default /usr/local/lib/libzel_korvane.so)
 * with dlopen once per process and looks up the entry points below by their
 * symbol names. Every entry point is optional: a missing one is logged and
 * the agent carries on without the feature. A plug-in exports plain C
 * functions whose types match the typedefs here, for example
 *
 *     uint32_t GetZelPassword(char* buf, uint32_t size) { ... }
 *
 * Unless stated otherwise, entry points are called with the agent's core
 * mutex held: they must not block for long and must not call back into the
 * Zel* functions.
 */
#ifndef ZEL_KORVANE_H
#define ZEL_KORVANE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------
 * Symbol "initialize"
 *
 * Called once, right after the plug-in was loaded and all entry points were
 * looked up, before any other entry point is used.
 */
typedef void (*ZelKorvaneInitialize)(void);

/* ---------------------------------------------------------------------------
 * Symbol "GetZelPassword"
 *
 * Supplies the pass phrase of the device's private key when the identity
 * document does not carry one. Writes the NUL-terminated pass phrase into
 * buf (size bytes, including the NUL) and returns its length without the
 * NUL. Returns 0 when there is no pass phrase. A return value of size or
 * more means the buffer was too small; the agent then uses no pass phrase.
 */
typedef uint32_t (*ZelKorvaneGetZelPassword)(char* buf, uint32_t size);

/* ---------------------------------------------------------------------------
 * Symbol "createDeviceValuesExt"
 *
 * Lets the vendor supply the device values. On entry every field holds the
 * agent's default (read from the machine); the plug-in overwrites the fields
 * it knows, as NUL-terminated text that fits the array. Keys present in the
 * device document given to ZelInit still win over the plug-in's values.
 * Returns 0 to have the values applied; any other value discards all changes.
 */
#define ZEL_KORVANE_VALUE_SIZE 256u

typedef struct ZelKorvaneDeviceValues {
    char id[ZEL_KORVANE_VALUE_SIZE];
    char model[ZEL_KORVANE_VALUE_SIZE];
    char subModel[ZEL_KORVANE_VALUE_SIZE];
    char platform[ZEL_KORVANE_VALUE_SIZE];
    char brand[ZEL_KORVANE_VALUE_SIZE];
    char esn[ZEL_KORVANE_VALUE_SIZE];
    char mac[ZEL_KORVANE_VALUE_SIZE]; /* "%02X:%02X:%02X:%02X:%02X:%02X" */
    char swVersion[ZEL_KORVANE_VALUE_SIZE];
} ZelKorvaneDeviceValues;

typedef int32_t (*ZelKorvaneCreateDeviceValuesExt)(ZelKorvaneDeviceValues* values);

/* ---------------------------------------------------------------------------
 * Symbol "createCommandsExt"
 *
 * Adds remote-support commands, or replaces built-in ones of the same name.
 * The agent calls it once per session manager start with a register function
 * and an opaque registry; the plug-in calls registerCommand(registry, &cmd)
 * once per command. The agent copies the record and the name; handler and
 * context must stay valid while the plug-in is loaded (the agent never
 * unloads it).
 */

/* Operation bits, as in ZelKorvaneCommand.operations. */
#define ZEL_KORVANE_OPERATION_EXECUTE 1u
#define ZEL_KORVANE_OPERATION_GET 2u
#define ZEL_KORVANE_OPERATION_DESCRIPTION 4u
#define ZEL_KORVANE_OPERATION_SESSION_TERMINATE 16u

/* Hands one JSON text to the agent (see ZelKorvaneCommandHandler). */
typedef void (*ZelKorvaneWriteOutput)(void* writeContext, const char* json);

/*
 * Runs one operation (a single ZEL_KORVANE_OPERATION_* bit) of a command.
 * inputsJson is the JSON text of the request's "INPUTS" ("null" when absent).
 * The handler may call write(writeContext, json) once with a JSON object: for
 * EXECUTE and GET the response data (passed on unwrapped when it has "ID",
 * "TYPE" and "DATA", otherwise wrapped), for DESCRIPTION the description
 * object. Returns the command result: 0 success, 3 invalid parameter,
 * 4 operation not supported, 5 not implemented, or a command-specific value.
 * Runs on a worker thread without the core mutex.
 */
typedef uint32_t (*ZelKorvaneCommandHandler)(void* context, uint32_t operation,
                                             const char* inputsJson, ZelKorvaneWriteOutput write,
                                             void* writeContext);

typedef struct ZelKorvaneCommand {
    const char* name; /* registry name, e.g. "FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES" */
    uint32_t type;    /* category 1, 2 or 3 */
    uint32_t version;
    uint32_t timeToComplete; /* expected execution time in milliseconds */
    uint32_t operations;     /* ZEL_KORVANE_OPERATION_* bits supported */
    ZelKorvaneCommandHandler handler;
    void* context; /* handed back to handler */
} ZelKorvaneCommand;

typedef void (*ZelKorvaneRegisterCommand)(void* registry, const ZelKorvaneCommand* command);

typedef void (*ZelKorvaneCreateCommandsExt)(ZelKorvaneRegisterCommand registerCommand,
                                            void* registry);

/* ---------------------------------------------------------------------------
 * Symbol "fillVideoBufferExt"
 *
 * Grabs one frame of the screen for streaming: RGBA, 4 bytes per pixel,
 * rows of getVideoWidthExt() pixels, getVideoHeightExt() rows. layer is one
 * of ZEL_KORVANE_LAYER_*. Writes at most size bytes into buffer and returns
 * the number of bytes written, or a negative value when no frame could be
 * grabbed. Runs on the agent's "VideoWorker" thread, once per frame, without
 * the core mutex.
 */
#define ZEL_KORVANE_LAYER_GRAPHICS 0u
#define ZEL_KORVANE_LAYER_VIDEO 1u
#define ZEL_KORVANE_LAYER_GRAPHICS_VIDEO 2u

typedef int32_t (*ZelKorvaneFillVideoBufferExt)(uint8_t* buffer, uint32_t size, uint32_t layer);

/* ---------------------------------------------------------------------------
 * Symbol "getGstreamerPathExt"
 *
 * Returns the directory holding the GStreamer plug-in files (static text owned
 * by the plug-in), or NULL for none.
 */
typedef const char* (*ZelKorvaneGetGstreamerPathExt)(void);

/* ---------------------------------------------------------------------------
 * Symbols "getVideoWidthExt" and "getVideoHeightExt"
 *
 * Called when a stream starts, on the "VideoWorker" thread without the core
 * mutex.
 * Return the width (height) in pixels of the frames fillVideoBufferExt
 * delivers. When visible is not NULL it receives the width (height) of the
 * part of the frame that shows picture, starting at the left (top) edge; the
 * rest is cropped away.
 */
typedef uint32_t (*ZelKorvaneGetVideoWidthExt)(uint32_t* visible);
typedef uint32_t (*ZelKorvaneGetVideoHeightExt)(uint32_t* visible);

#ifdef __cplusplus
}
#endif

#endif /* ZEL_KORVANE_H */

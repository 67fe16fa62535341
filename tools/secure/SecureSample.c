/*
 * Sample secure-object library for the Zel Device Agent (include/zel_secure.h).
 *
 * A stand-in for the platform's library on development machines and in the
 * tests: no trusted execution environment, just files. Everything lives in the
 * directory that ZEL_SECURE_SAMPLE_DIR names when DrmpSecureOpen is called;
 * until then (or after DrmpSecureClose) every other function fails.
 *
 *   <dir>/ulpk            one line "INDEX HEXKEY", e.g.
 *                         "7 00112233445566778899aabbccddeeff": the unique key
 *                         (an even number of hex digits) and its index
 *   <dir>/names           the supported object names, one a line; at most 5
 *                         names of at most 64 bytes, blank lines skipped
 *   <dir>/idconfig        identity configuration, the bytes as they are
 *   <dir>/deviceid        device id, the bytes as they are
 *   <dir>/objects/<name>  one file (mode 0600) per installed object, holding
 *                         its bytes as delivered; objects/ is made (0700) on
 *                         the first install
 *
 * An object name is 1 to 64 bytes without "/" and "..", and does not start
 * with "."; anything else is refused, so no name reaches outside objects/.
 * The encryption type is not applied (the bytes are stored as delivered) but
 * must not be 0; GetObjectName wants kind 3 and ObjectDelete flags 0, as the
 * agent passes them.
 *
 * Results: 0 success, and otherwise one of the codes below. Not thread-safe:
 * the agent makes one call at a time.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "zel_secure.h"

#define SECURE_EXPORT __attribute__((visibility("default")))

enum {
    kOk = 0,
    kNotOpen = 1,     /* DrmpSecureOpen not called, or the directory unset */
    kBadArgument = 2, /* null pointer, refused name, kind or flags */
    kNoFile = 3,      /* a file is missing or cannot be read or written */
    kMalformed = 4,   /* a file's content does not follow the layout */
    kTooSmall = 5     /* the caller's buffer cannot hold the answer */
};

enum { kMaxFile = 8192, kMaxNameLength = 64 };

static char directory[4096];
static int opened = 0;

static int pathOf(const char* name, char* path, size_t size) {
    int written = snprintf(path, size, "%s/%s", directory, name);
    return written > 0 && (size_t)written < size;
}

/* Reads a whole small file; fails with kTooSmall when it holds more than
 * `capacity` bytes. */
static int readFile(const char* name, uint8_t* buffer, size_t capacity, size_t* length) {
    char path[4200];
    FILE* file;
    uint8_t extra;
    size_t got;
    int result = kOk;

    if (!pathOf(name, path, sizeof(path))) {
        return kNoFile;
    }
    file = fopen(path, "rb");
    if (file == NULL) {
        return kNoFile;
    }
    got = fread(buffer, 1, capacity, file);
    if (ferror(file)) {
        result = kNoFile;
    } else if (got == capacity && fread(&extra, 1, 1, file) == 1) {
        result = kTooSmall;
    }
    fclose(file);
    *length = got;
    return result;
}

static int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

static int validName(const char* name) {
    size_t length;
    if (name == NULL) {
        return 0;
    }
    length = strlen(name);
    return length > 0 && length <= kMaxNameLength && name[0] != '.' && strchr(name, '/') == NULL &&
           strstr(name, "..") == NULL;
}

static int objectPath(const char* name, char* path, size_t size) {
    int written = snprintf(path, size, "%s/objects/%s", directory, name);
    return written > 0 && (size_t)written < size;
}

SECURE_EXPORT int32_t DrmpSecureOpen(void) {
    const char* fromEnvironment = getenv("ZEL_SECURE_SAMPLE_DIR");
    opened = 0;
    if (fromEnvironment == NULL || fromEnvironment[0] == '\0' ||
        strlen(fromEnvironment) >= sizeof(directory)) {
        return kNotOpen;
    }
    strcpy(directory, fromEnvironment);
    opened = 1;
    return kOk;
}

SECURE_EXPORT int32_t DrmpSecureClose(void) {
    if (!opened) {
        return kNotOpen;
    }
    opened = 0;
    return kOk;
}

SECURE_EXPORT int32_t DrmpSecureOnProvision(const uint8_t* object, uint32_t size, const char* name,
                                            const char* id, uint32_t encryptionType,
                                            uint32_t* returned) {
    char path[4200];
    size_t done = 0;
    int descriptor;
    int result = kOk;

    (void)id;
    if (!opened) {
        return kNotOpen;
    }
    if (object == NULL || size == 0 || returned == NULL || encryptionType == 0 ||
        !validName(name)) {
        return kBadArgument;
    }
    if (!pathOf("objects", path, sizeof(path)) || (mkdir(path, 0700) != 0 && errno != EEXIST) ||
        !objectPath(name, path, sizeof(path))) {
        return kNoFile;
    }
    /* No following a link planted where the object goes; the mode is set
     * again in case the file was there before with a looser one. */
    descriptor = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        return kNoFile;
    }
    if (fchmod(descriptor, 0600) != 0) {
        result = kNoFile;
    }
    while (result == kOk && done < size) {
        ssize_t written = write(descriptor, object + done, size - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            result = kNoFile;
        } else {
            done += (size_t)written;
        }
    }
    if (close(descriptor) != 0) {
        result = kNoFile;
    }
    if (result != kOk) {
        unlink(path);
        return result;
    }
    *returned = size;
    return kOk;
}

SECURE_EXPORT int32_t DrmpSecureObjectDelete(const char* name, uint32_t flags) {
    char path[4200];
    if (!opened) {
        return kNotOpen;
    }
    if (flags != 0 || !validName(name)) {
        return kBadArgument;
    }
    if (!objectPath(name, path, sizeof(path)) || unlink(path) != 0) {
        return kNoFile;
    }
    return kOk;
}

SECURE_EXPORT int32_t DrmpSecureGetObjectName(char* buffer, uint32_t size, uint32_t* count,
                                              uint32_t kind) {
    char text[kMaxFile + 1];
    size_t length = 0;
    char* line;
    char* next;
    uint32_t found = 0;
    int result;

    if (!opened) {
        return kNotOpen;
    }
    if (buffer == NULL || count == NULL || kind != 3) {
        return kBadArgument;
    }
    if (size < ZEL_SECURE_NAME_SLOTS * ZEL_SECURE_NAME_SLOT_SIZE) {
        return kTooSmall;
    }
    result = readFile("names", (uint8_t*)text, kMaxFile, &length);
    if (result != kOk) {
        return result == kTooSmall ? kMalformed : result;
    }
    text[length] = '\0';
    if (memchr(text, '\0', length) != NULL) {
        return kMalformed;
    }
    memset(buffer, 0, ZEL_SECURE_NAME_SLOTS * ZEL_SECURE_NAME_SLOT_SIZE);
    for (line = text; line != NULL && *line != '\0'; line = next) {
        size_t nameLength = strcspn(line, "\r\n");
        next = line[nameLength] == '\0' ? NULL : line + nameLength + 1;
        if (nameLength == 0) {
            continue;
        }
        if (nameLength > ZEL_SECURE_NAME_SLOT_SIZE || found == ZEL_SECURE_NAME_SLOTS) {
            return kMalformed;
        }
        /* A full-length name fills its slot and has no terminator. */
        memcpy(buffer + found * ZEL_SECURE_NAME_SLOT_SIZE, line, nameLength);
        ++found;
    }
    *count = found;
    return kOk;
}

static int32_t readBytes(const char* name, uint8_t* buffer, uint32_t* length) {
    size_t got = 0;
    int result;

    if (!opened) {
        return kNotOpen;
    }
    if (buffer == NULL || length == NULL) {
        return kBadArgument;
    }
    result = readFile(name, buffer, *length, &got);
    if (result != kOk) {
        return result;
    }
    *length = (uint32_t)got;
    return kOk;
}

SECURE_EXPORT int32_t DrmpSecureGetIDConfig(uint8_t* buffer, uint32_t* length) {
    return readBytes("idconfig", buffer, length);
}

SECURE_EXPORT int32_t DrmpSecureGetDeviceID(uint8_t* buffer, uint32_t* length) {
    return readBytes("deviceid", buffer, length);
}

SECURE_EXPORT int32_t DrmpSecureGetUlpk(uint32_t* index, uint8_t* buffer, uint32_t* length) {
    char text[kMaxFile + 1];
    size_t got = 0;
    char* cursor;
    char* end;
    unsigned long parsed;
    size_t digits;
    size_t i;
    int result;

    if (!opened) {
        return kNotOpen;
    }
    if (index == NULL || buffer == NULL || length == NULL) {
        return kBadArgument;
    }
    result = readFile("ulpk", (uint8_t*)text, kMaxFile, &got);
    if (result != kOk) {
        return result == kTooSmall ? kMalformed : result;
    }
    text[got] = '\0';
    if (text[0] < '0' || text[0] > '9') {
        return kMalformed;
    }
    errno = 0;
    parsed = strtoul(text, &end, 10);
    if (errno != 0 || parsed > UINT32_MAX || (*end != ' ' && *end != '\t')) {
        return kMalformed;
    }
    cursor = end + strspn(end, " \t");
    digits = strspn(cursor, "0123456789abcdefABCDEF");
    if (digits == 0 || digits % 2 != 0 ||
        cursor[digits + strspn(cursor + digits, " \t\r\n")] != '\0') {
        return kMalformed;
    }
    if (digits / 2 > *length) {
        return kTooSmall;
    }
    for (i = 0; i < digits / 2; ++i) {
        buffer[i] = (uint8_t)(hexDigit(cursor[2 * i]) * 16 + hexDigit(cursor[2 * i + 1]));
    }
    *index = (uint32_t)parsed;
    *length = (uint32_t)(digits / 2);
    return kOk;
}

/* The exports must keep the types the agent looks them up as. */
_Static_assert(_Generic(&DrmpSecureOpen, ZelSecureOpen : 1, default : 0), "DrmpSecureOpen");
_Static_assert(_Generic(&DrmpSecureClose, ZelSecureClose : 1, default : 0), "DrmpSecureClose");
_Static_assert(_Generic(&DrmpSecureOnProvision, ZelSecureOnProvision : 1, default : 0),
               "DrmpSecureOnProvision");
_Static_assert(_Generic(&DrmpSecureObjectDelete, ZelSecureObjectDelete : 1, default : 0),
               "DrmpSecureObjectDelete");
_Static_assert(_Generic(&DrmpSecureGetObjectName, ZelSecureGetObjectName : 1, default : 0),
               "DrmpSecureGetObjectName");
_Static_assert(_Generic(&DrmpSecureGetIDConfig, ZelSecureGetIDConfig : 1, default : 0),
               "DrmpSecureGetIDConfig");
_Static_assert(_Generic(&DrmpSecureGetDeviceID, ZelSecureGetDeviceID : 1, default : 0),
               "DrmpSecureGetDeviceID");
_Static_assert(_Generic(&DrmpSecureGetUlpk, ZelSecureGetUlpk : 1, default : 0),
               "DrmpSecureGetUlpk");

/*
 * Zel Device Agent: the secure-object library it drives.
 *
 * The platform's library keeps provisioned secret objects in the trusted
 * execution environment. The agent loads it at run time (dlopen of the path
 * the "drmp" section's "secureLibraryPath" names, by default
 * /usr/local/lib/libzel_secure.so) and looks the eight functions below up by
 * name; firmware drops its library in and nothing is rebuilt. Every function
 * returns 0 on success and anything else on failure. They are called from
 * the agent's provisioning threads, one call at a time, without its core
 * mutex.
 */
#ifndef ZEL_SECURE_H
#define ZEL_SECURE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Size of the buffer DrmpSecureGetObjectName fills: five slots of 64 bytes,
 * each one name, NUL-terminated unless it fills the slot. */
#define ZEL_SECURE_NAME_SLOTS 5u
#define ZEL_SECURE_NAME_SLOT_SIZE 64u

/* Opens and closes the connection to the secure core. */
typedef int32_t (*ZelSecureOpen)(void);
typedef int32_t (*ZelSecureClose)(void);

/* Installs one object: its bytes (size of them), its name and identifier,
 * and the encryption type of the bytes (bit flags: 1 3DES, 2 AES, 4 RSA,
 * 0x100 custom, 0x8000 the "_ur" variants). *returned receives the length
 * the core reports. */
typedef int32_t (*ZelSecureOnProvision)(const uint8_t* object, uint32_t size, const char* name,
                                        const char* id, uint32_t encryptionType,
                                        uint32_t* returned);

/* Deletes the object of this name; flags is 0. */
typedef int32_t (*ZelSecureObjectDelete)(const char* name, uint32_t flags);

/* Fills buffer (size bytes) with the names of the objects the device
 * supports, one per slot, and *count with their number; kind is 3. */
typedef int32_t (*ZelSecureGetObjectName)(char* buffer, uint32_t size, uint32_t* count,
                                          uint32_t kind);

/* Identity configuration and device id: *length is the buffer's size going
 * in and the bytes written coming out. */
typedef int32_t (*ZelSecureGetIDConfig)(uint8_t* buffer, uint32_t* length);
typedef int32_t (*ZelSecureGetDeviceID)(uint8_t* buffer, uint32_t* length);

/* The device's unique key and its index: *length is 1024 going in. */
typedef int32_t (*ZelSecureGetUlpk)(uint32_t* index, uint8_t* buffer, uint32_t* length);

#ifdef __cplusplus
}
#endif

#endif /* ZEL_SECURE_H */

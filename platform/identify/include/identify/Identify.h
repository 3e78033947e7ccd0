/*
 * Identity-token library. Tokens are opaque byte strings issued by
 * Identify_Apply and verified by Identify_Check; they carry an expiry and a
 * random nonce and are signed with HMAC-SHA-256 under a 32-byte key shared by
 * every process that uses the same key file.
 *
 * Environment, read by the Identify_Init call that starts the library:
 *   IDENTIFY_KEY_FILE   path of the key file (32 raw bytes). Default:
 *                       /var/lib/identify/identify.key. When the file does not
 *                       exist it is created with a fresh random key, mode 0600
 *                       (and its folder, one level, mode 0700); processes that
 *                       start together all end with the key of the first one
 *                       to publish the file. A file of any other size than 32
 *                       bytes is refused, never replaced.
 *   IDENTIFY_TOKEN_TTL  token lifetime in seconds, with up to three decimals
 *                       ("300", "2.5", "0.001"); more than 0 and at most 604800.
 *                       Default 300.
 *
 * Token layout (all integers big-endian):
 *   [0]      version (1)
 *   [1..8]   key id: the first 8 bytes of HMAC-SHA-256(key, "identify key id")
 *   [9..16]  issue time, milliseconds since the Unix epoch
 *   [17..24] expiry time, milliseconds since the Unix epoch
 *   [25..40] random nonce
 *   [41..72] HMAC-SHA-256(key, bytes 0..40)
 * Callers should not rely on the size: Identify_Apply with a too small buffer
 * (or a null one) reports the size it needs.
 *
 * Init is reference counted: every successful Identify_Init needs one
 * Identify_Fini. All functions may be called from any thread. The two leading
 * integers of Check and Apply are reserved and must be 0. Every function
 * returns 0 or one of the IDENTIFY_E_* codes.
 */
#ifndef IDENTIFY_IDENTIFY_H
#define IDENTIFY_IDENTIFY_H

#ifdef __cplusplus
extern "C" {
#endif

#define IDENTIFY_API __attribute__((visibility("default")))

#define IDENTIFY_E_NOT_INIT ((int)0x80000001)      /* Identify_Init was not called (or was undone) */
#define IDENTIFY_E_PARAM ((int)0x80000002)         /* bad argument, or a reserved argument not 0 */
#define IDENTIFY_E_KEY_FILE ((int)0x80000003)      /* key file unreadable, malformed or not creatable */
#define IDENTIFY_E_RANDOM ((int)0x80000004)        /* no randomness available */
#define IDENTIFY_E_CRYPTO ((int)0x80000005)        /* the MAC could not be computed */
#define IDENTIFY_E_CONFIG ((int)0x80000006)        /* IDENTIFY_TOKEN_TTL is not a valid lifetime */
#define IDENTIFY_E_MALFORMED ((int)0x80000010)     /* token of the wrong size or version */
#define IDENTIFY_E_BAD_SIGNATURE ((int)0x80000011) /* token altered after it was issued */
#define IDENTIFY_E_EXPIRED ((int)0x80000012)       /* past its expiry */
#define IDENTIFY_E_WRONG_KEY ((int)0x80000013)     /* issued under another key (or its key id altered) */
#define IDENTIFY_E_BUFFER_SMALL ((int)0x80000021)  /* Apply: buffer too small; *length = size needed */

IDENTIFY_API int Identify_Init(void);
IDENTIFY_API int Identify_Fini(void);
IDENTIFY_API int Identify_Check(int reserved1, int reserved2, const unsigned char* token, int length);
/* *length: buffer size in, token length out. */
IDENTIFY_API int Identify_Apply(int reserved1, int reserved2, unsigned char* out, int* length);

#ifdef __cplusplus
}
#endif

#endif /* IDENTIFY_IDENTIFY_H */

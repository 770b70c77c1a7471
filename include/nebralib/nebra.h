/* nebralib's C interface: the whole product through plain C calls, for programs built with any
 * compiler or language (C, C++ of any vendor, Python's ctypes, .NET, Go, Rust).
 *
 * Conventions
 * - Every call returns a status: NULL when it succeeded, otherwise a handle that describes the
 *   failure (nebra_status_code, nebra_status_event, ...), which the caller frees with
 *   nebra_status_free. A failure raised by the library carries the event's name, source, line
 *   and parameters exactly as the library's C++ event has them, and the sentence the `nebra`
 *   tool prints for it.
 * - Handles are opaque. Each kind has one free function; freeing NULL does nothing. A handle that
 *   is not live (freed already, never handed out, or NULL where a handle is needed) is refused
 *   with NEBRA_E_HANDLE: handle values are never reused, so a second free is always recognised.
 * - An out-parameter is set to NULL (0) first; it receives a handle only when the call succeeds,
 *   except that nebra_sync and nebra_remove_token hand out their list (perhaps empty) whatever
 *   happens, for the caller to free.
 * - Text passed in is NUL-terminated UTF-8 (refused with NEBRA_E_UTF8 otherwise); text and bytes
 *   passed out are copied into the caller's buffer with an explicit size (nebra_list_get).
 * - Threads: every call is thread-safe as long as one handle is not used by two threads at once;
 *   different handles may be used from different threads at the same time. A PIN refused by a
 *   token is remembered for the whole process, whichever thread or handle sent it: no further
 *   PIN reaches that token until the process starts again, since every wrong try brings a card
 *   closer to locking (ask the user for the right PIN before the first try).
 * - No call prompts, prints, or keeps a PIN after it returns.
 */
#ifndef NEBRALIB_NEBRA_H
#define NEBRALIB_NEBRA_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#if defined(nebralib_EXPORTS)
#define NEBRA_API __declspec(dllexport)
#else
#define NEBRA_API __declspec(dllimport)
#endif
#else
#define NEBRA_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The interface's ABI version: changes whenever a call, a constant or a layout changes in a way
 * that a program built against an older header would notice. */
#define NEBRA_ABI_VERSION 1

typedef struct nebra_status nebra_status;
typedef struct nebra_token nebra_token;
typedef struct nebra_list nebra_list;

/* Status codes (nebra_status_code). */
#define NEBRA_OK 0
#define NEBRA_E_EVENT 1          /* the library raised an event: see nebra_status_event */
#define NEBRA_E_ARGUMENT 2       /* a NULL or meaningless argument */
#define NEBRA_E_HANDLE 3         /* not a live handle of the expected kind (freed already?) */
#define NEBRA_E_BUFFER_SMALL 4   /* the buffer is too small: *size tells how large it must be */
#define NEBRA_E_UTF8 5           /* text passed in is not UTF-8 */
#define NEBRA_E_PIN_WITHHELD 6   /* no PIN was sent: the token is locked, at its final try, or */
                                 /* refused a PIN before in this process */
#define NEBRA_E_FAILED 7         /* anything else (out of memory, an unexpected failure) */

/* The library's version ("1.2.3") and the ABI version it was built with. */
NEBRA_API const char* nebra_version(void);
NEBRA_API uint32_t nebra_abi_version(void);
/* How many handles of every kind are live: a program that has freed everything it was handed sees
 * 0 (a check for tests, since a handle kept alive by the library is invisible to leak checkers). */
NEBRA_API uint64_t nebra_live_handles(void);

/* ---- statuses ------------------------------------------------------------------------------
 * Texts returned here belong to the status and stay valid until it is freed; each is
 * NUL-terminated and its length in bytes (without the NUL) is stored in *len when len is not
 * NULL. A NULL status reads as NEBRA_OK with empty texts. */
NEBRA_API int32_t nebra_status_code(const nebra_status* status);
/* The event's name ("Pkcs11Error_CryptokiError"); "" when the failure is not an event. */
NEBRA_API const char* nebra_status_event(const nebra_status* status, size_t* len);
/* The event's source text ("pkcs11\\cksession") and line; "" and 0 when not an event. */
NEBRA_API const char* nebra_status_source(const nebra_status* status, size_t* len);
NEBRA_API uint32_t nebra_status_line(const nebra_status* status);
/* The event's parameters in the event's order; NULL when index is out of range. */
NEBRA_API uint32_t nebra_status_param_count(const nebra_status* status);
NEBRA_API const char* nebra_status_param_key(const nebra_status* status, uint32_t index,
                                             size_t* len);
NEBRA_API const char* nebra_status_param_value(const nebra_status* status, uint32_t index,
                                               size_t* len);
/* What went wrong in one sentence, as `nebra` says it. */
NEBRA_API const char* nebra_status_message(const nebra_status* status, size_t* len);
NEBRA_API nebra_status* nebra_status_free(nebra_status* status);

/* ---- lists ---------------------------------------------------------------------------------
 * Every result is a list of rows; a row has the fields its kind names below. */
#define NEBRA_FIELD_URI 1          /* text: a token's PKCS#11 URI */
#define NEBRA_FIELD_LABEL 2        /* text: token label, or a certificate's CKA_LABEL */
#define NEBRA_FIELD_MANUFACTURER 3 /* text */
#define NEBRA_FIELD_MODEL 4        /* text */
#define NEBRA_FIELD_SERIAL 5       /* text: a token's serial; a certificate's serial in hex */
#define NEBRA_FIELD_GROUP 6        /* text: certsWithPrivateKey, rootCerts, caCerts, otherCerts */
#define NEBRA_FIELD_KEY 7          /* text: "CKAIDHEX:..." on the token, the container in a store */
#define NEBRA_FIELD_ID 8           /* bytes: CKA_ID */
#define NEBRA_FIELD_DER 9          /* bytes: the certificate */
#define NEBRA_FIELD_SUBJECT 10     /* text */
#define NEBRA_FIELD_ISSUER 11      /* text */
#define NEBRA_FIELD_NOT_BEFORE 12  /* text: YYYY-MM-DD HH:MM:SS, UTC */
#define NEBRA_FIELD_NOT_AFTER 13   /* text */
#define NEBRA_FIELD_STORE 14       /* text: a store name */
#define NEBRA_FIELD_CHANGE 15      /* text: what a sync did to a certificate (see nebra_sync) */
#define NEBRA_FIELD_TOKENS 16      /* text: URIs of the tokens a certificate records, one per line */
#define NEBRA_FIELD_NAME 17        /* text: a key provider's name; a certificate's display name */
#define NEBRA_FIELD_NOTE 18        /* text: why nothing was removed from a store ("" if it was) */
#define NEBRA_FIELD_FLAGS 19       /* text: a token's CK_TOKEN_INFO flags in decimal */
#define NEBRA_FIELD_UNREADABLE 20  /* text: "1" when a certificate's token record does not */
                                   /* decode (it is left as it is), else "0" */

NEBRA_API nebra_status* nebra_list_count(const nebra_list* list, uint64_t* count);
/* Copies field `field` of row `row` into buf. *size is the buffer's size on entry and the
 * field's size on return (text has no NUL added). With buf NULL only the size is stored;
 * with a buffer too small nothing is copied and NEBRA_E_BUFFER_SMALL returned. A field the row
 * does not have is NEBRA_E_ARGUMENT. */
NEBRA_API nebra_status* nebra_list_get(const nebra_list* list, uint64_t row, uint32_t field,
                                       void* buf, uint64_t* size);
NEBRA_API nebra_status* nebra_list_free(nebra_list* list);

/* ---- tokens --------------------------------------------------------------------------------
 * `module` is a module file, a module name registered with p11-kit, or a PKCS#11 URI choosing a
 * token (token, serial, manufacturer, model) and its module (module-path or module-name). */

/* The tokens present in the module's slots: rows URI, LABEL, MANUFACTURER, MODEL, SERIAL,
 * FLAGS. */
NEBRA_API nebra_status* nebra_tokens(const char* module, nebra_list** tokens);
/* Loads the module and chooses its first token, or the first one the URI matches. */
NEBRA_API nebra_status* nebra_token_open(const char* module, nebra_token** token);
/* The chosen token as one row of nebra_tokens' kind (FLAGS read now). */
NEBRA_API nebra_status* nebra_token_info(nebra_token* token, nebra_list** info);
/* Logs the user in with the PIN's bytes; with pin NULL and pin_len 0 the reader's PIN pad asks
 * for it. No PIN goes to a token that reports CKF_USER_PIN_LOCKED or CKF_USER_PIN_FINAL_TRY, or
 * that refused one before in this process (NEBRA_E_PIN_WITHHELD): a call never retries. */
NEBRA_API nebra_status* nebra_token_login(nebra_token* token, const uint8_t* pin,
                                          uint64_t pin_len);
/* Every certificate of the logged-in token (before a login: NEBRA_E_ARGUMENT): rows GROUP, KEY, ID, LABEL, SUBJECT, ISSUER, SERIAL,
 * NOT_BEFORE, NOT_AFTER, DER, in group order, then key order. */
NEBRA_API nebra_status* nebra_token_harvest(nebra_token* token, nebra_list** certs);
NEBRA_API nebra_status* nebra_token_free(nebra_token* token);

/* ---- the main job --------------------------------------------------------------------------
 * Groups of a token's certificates, indexes of nebra_sync's `stores`. */
#define NEBRA_GROUP_WITH_KEY 0 /* certificates with a private key on the token (bound to keys) */
#define NEBRA_GROUP_ROOT 1
#define NEBRA_GROUP_CA 2
#define NEBRA_GROUP_OTHER 3

#define NEBRA_SYNC_PRUNE 1u   /* remove this token's certificates it no longer holds */
#define NEBRA_SYNC_DRY_RUN 2u /* change nothing; say what would change */
#define NEBRA_SYNC_ADOPT 4u   /* record this token on bound certificates that record none */

/* Brings the stores in step with a logged-in token (before a login: NEBRA_E_ARGUMENT): stores[g] receives group g (NULL: the group
 * is not written; stores[NEBRA_GROUP_WITH_KEY] NULL means "MY"), bound to key provider `csp`.
 * Rows: STORE, GROUP, CHANGE, KEY, LABEL, SUBJECT, NAME, one per certificate met, where CHANGE
 * is added, unchanged, keptUnbound, removed, keptForOtherTokens, rebound, sharedWithOtherTokens
 * or unreadableTokenRecord; then one row per store with CHANGE "store", its NOTE, and no
 * certificate fields. After a failure *result still holds what was done before it. */
NEBRA_API nebra_status* nebra_sync(nebra_token* token, const char* csp, const char* const stores[4],
                                   uint32_t flags, nebra_list** result);
/* Takes the certificates bound to `csp` (not empty) and recorded for the tokens `token_uri`
 * matches out of `store` (NULL: "MY"):
 * a certificate goes when no other token records it. Rows as nebra_sync's. */
NEBRA_API nebra_status* nebra_remove_token(const char* store, const char* csp,
                                           const char* token_uri, nebra_list** result);
/* Removes every certificate bound to `csp` from `store` (NULL: "MY"); *removed (when not NULL)
 * receives how many went. */
NEBRA_API nebra_status* nebra_remove_provider(const char* store, const char* csp,
                                              uint64_t* removed);

/* ---- stores and providers -------------------------------------------------------------------- */
/* The certificates bound to `csp` ("" or NULL: any) in `store` (NULL: "MY"), ordered by container
 * then encoding: rows KEY (the container), SUBJECT, ISSUER, SERIAL, NOT_BEFORE, NOT_AFTER, TOKENS,
 * UNREADABLE, DER. */
NEBRA_API nebra_status* nebra_store_list(const char* store, const char* csp, nebra_list** certs);
/* The installed key providers, in enumeration order: rows NAME. */
NEBRA_API nebra_status* nebra_providers(nebra_list** providers);

/* ---- files --------------------------------------------------------------------------------- */
/* NULL when the file carries a valid Authenticode signature chaining to a trusted root. */
NEBRA_API nebra_status* nebra_verify_file(const char* path);
/* Grants ALL APPLICATION PACKAGES (S-1-15-2-1) read access to a file, or to a folder and
 * everything in it (recursive non-zero). */
NEBRA_API nebra_status* nebra_grant_app_access(const char* path, int32_t recursive);
/* *granted becomes 1 when an entry of the file's DACL names ALL APPLICATION PACKAGES (as a grant
 * leaves it), else 0. */
NEBRA_API nebra_status* nebra_has_app_access(const char* path, int32_t* granted);

#ifdef __cplusplus
}
#endif

#endif /* NEBRALIB_NEBRA_H */

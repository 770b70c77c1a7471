/* nebra_sync: nebralib from plain C. Syncs a token's certificates that have a private key into a
 * store, bound to a key provider, then prints the store's certificates of that provider exactly as
 * `nebra list --csp CSP --store STORE --json` does. The PIN's bytes come from NEBRA_PIN.
 *
 *   nebra_sync MODULE CSP STORE
 *   nebra_sync --token MODULE   the token and its certificates, as `nebra token --json` prints them
 *   nebra_sync --threads MODULE1 MODULE2 CSP STORE1 STORE2   two tokens synced at the same time
 *   nebra_sync --edge MODULE    edge cases of handles and arguments; ends with a wrong PIN, so
 *                               this process sends no PIN to the token afterwards
 *
 * Exit status: 0 on success, 1 on a failure (described on stderr), 2 on bad usage. */
#define _POSIX_C_SOURCE 200809L
#include <nebralib/nebra.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Frees a status whose failure was handled; a status about the free itself is reported. */
static void release(nebra_status* st) {
    nebra_status* again = nebra_status_free(st);
    if (again) {
        fprintf(stderr, "freeing a status failed: %s\n", nebra_status_message(again, NULL));
        nebra_status_free(again);
    }
}

/* With a failure: prints its message, then its event, source:line and parameters, as
 * `nebra --verbose` prints them (a failure that is no event: its status and what failed); frees
 * it and returns 1. Returns 0 for NULL (success). */
static int failed(nebra_status* st, const char* what) {
    uint32_t i;
    if (!st) return 0;
    if (*nebra_status_message(st, NULL)) fprintf(stderr, "%s\n", nebra_status_message(st, NULL));
    if (*nebra_status_event(st, NULL))
        fprintf(stderr, "error: %s (%s:%u)", nebra_status_event(st, NULL),
                nebra_status_source(st, NULL), (unsigned)nebra_status_line(st));
    else
        fprintf(stderr, "error: status %d (%s)", (int)nebra_status_code(st), what);
    for (i = 0; i < nebra_status_param_count(st); ++i)
        fprintf(stderr, " %s=%s", nebra_status_param_key(st, i, NULL),
                nebra_status_param_value(st, i, NULL));
    fprintf(stderr, "\n");
    release(st);
    return 1;
}

/* Field `field` of row `row` as a NUL-terminated copy the caller frees (its length in *len); NULL
 * after a failure was reported. */
static char* field(const nebra_list* list, uint64_t row, uint32_t f, size_t* len) {
    uint64_t size = 0;
    char* s;
    if (failed(nebra_list_get(list, row, f, NULL, &size), "reading a field")) return NULL;
    if (size >= (uint64_t)((size_t)-1) || !(s = malloc((size_t)size + 1))) {
        fprintf(stderr, "out of memory for a field of %lu bytes\n", (unsigned long)size);
        return NULL;
    }
    if (failed(nebra_list_get(list, row, f, s, &size), "reading a field")) {
        free(s);
        return NULL;
    }
    s[size] = '\0';
    if (len) *len = (size_t)size;
    return s;
}

/* Output collected in memory, written only once it is complete. */
typedef struct {
    char* p;
    size_t n, cap;
} out_t;

static void put(out_t* o, const char* s, size_t n) {
    if (o->n + n > o->cap) {
        o->cap = (o->n + n) * 2;
        if (!(o->p = realloc(o->p, o->cap))) fputs("out of memory\n", stderr), exit(1);
    }
    memcpy(o->p + o->n, s, n);
    o->n += n;
}
static void puts_(out_t* o, const char* s) {
    put(o, s, strlen(s));
}

/* The code point of the UTF-8 sequence at s[*i] (advanced past it), or -1 for a byte that starts
 * no well-formed sequence (one byte is consumed). */
static long next_char(const unsigned char* s, size_t n, size_t* i) {
    static const long min[] = {0, 0, 0x80, 0x800, 0x10000};
    unsigned char b = s[*i];
    size_t len = b < 0x80 ? 1 : b < 0xC2 ? 0 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : b < 0xF5 ? 4 : 0;
    long c = len == 1 ? b : len == 2 ? (b & 0x1F) : len == 3 ? (b & 0x0F) : (b & 0x07);
    size_t k;
    if (len == 0 || n - *i < len) return ++*i, -1;
    for (k = 1; k < len; ++k) {
        if ((s[*i + k] & 0xC0) != 0x80) return ++*i, -1;
        c = (c << 6) | (s[*i + k] & 0x3F);
    }
    if (c < min[len] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return ++*i, -1;
    *i += len;
    return c;
}

/* A JSON string escaped as the nebra tool escapes it. */
static void json(out_t* o, const char* text, size_t n) {
    const unsigned char* s = (const unsigned char*)text;
    size_t i = 0, start;
    char esc[16];
    puts_(o, "\"");
    while (i < n) {
        long c = next_char(s, n, (start = i, &i));
        if (c < 0) {
            puts_(o, "\\ufffd");
        } else if (c == '"' || c == '\\') {
            put(o, "\\", 1), put(o, text + start, 1);
        } else if (c == '\n' || c == '\r' || c == '\t') {
            puts_(o, c == '\n' ? "\\n" : c == '\r' ? "\\r" : "\\t");
        } else if (c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x2028 || c == 0x2029) {
            snprintf(esc, sizeof esc, "\\u%04x", (unsigned)c);
            puts_(o, esc);
        } else {
            put(o, text + start, i - start);
        }
    }
    puts_(o, "\"");
}

/* A row's fields as JSON members, each after its text `before`: text as a string, bytes as a
 * string of hex digits, or lines of text as an array of strings. */
typedef struct {
    uint32_t field;
    char kind; /* 't' text, 'x' bytes, 'a' lines */
    const char* before;
} col_t;

static int row_json(out_t* o, const nebra_list* list, uint64_t row, const col_t* cols, size_t n) {
    size_t c, len, k;
    char *v, *line, *end, hex[3];
    for (c = 0; c < n; ++c) {
        if (!(v = field(list, row, cols[c].field, &len))) return 1;
        puts_(o, cols[c].before);
        if (cols[c].kind == 't') json(o, v, len);
        if (cols[c].kind == 'x') {
            puts_(o, "\"");
            for (k = 0; k < len; ++k)
                snprintf(hex, sizeof hex, "%02X", (unsigned char)v[k]), put(o, hex, 2);
            puts_(o, "\"");
        }
        if (cols[c].kind == 'a') {
            puts_(o, "[");
            for (line = v; *line; line = *end ? end + 1 : end) {
                end = line + strcspn(line, "\n");
                if (line != v) puts_(o, ", ");
                json(o, line, (size_t)(end - line));
            }
            puts_(o, "]");
        }
        free(v);
    }
    return 0;
}

#define COUNT(a) (sizeof(a) / sizeof((a)[0]))

/* The certificates bound to csp in store, as `nebra list --json` prints them. */
static int list_json(out_t* o, const char* store, const char* csp) {
    static const col_t cols[] = {{NEBRA_FIELD_KEY, 't', "{\"container\": "},
                                 {NEBRA_FIELD_SUBJECT, 't', ", \"subject\": "},
                                 {NEBRA_FIELD_ISSUER, 't', ", \"issuer\": "},
                                 {NEBRA_FIELD_SERIAL, 't', ", \"serial\": "},
                                 {NEBRA_FIELD_NOT_BEFORE, 't', ", \"notBefore\": "},
                                 {NEBRA_FIELD_NOT_AFTER, 't', ", \"notAfter\": "},
                                 {NEBRA_FIELD_TOKENS, 'a', ", \"tokens\": "}};
    nebra_list* certs = NULL;
    uint64_t rows = 0, r;
    int rc = failed(nebra_store_list(store, csp, &certs), "listing the store") ||
             failed(nebra_list_count(certs, &rows), "counting the certificates");
    puts_(o, "{\"store\": ");
    json(o, store, strlen(store));
    puts_(o, ", \"csp\": ");
    if (*csp) json(o, csp, strlen(csp));
    puts_(o, *csp ? ", \"certificates\": [" : "null, \"certificates\": [");
    for (r = 0; !rc && r < rows; ++r) {
        puts_(o, r ? ",\n  " : "\n  ");
        rc = row_json(o, certs, r, cols, COUNT(cols));
        puts_(o, "}");
    }
    puts_(o, rows ? "\n]}\n" : "]}\n");
    return rc | failed(nebra_list_free(certs), "freeing the list");
}

/* The token and its certificates by group, as `nebra token --json` prints them. */
static int token_json(out_t* o, nebra_token* token) {
    static const col_t info_cols[] = {{NEBRA_FIELD_LABEL, 't', "{\"token\":{\"label\":"},
                                      {NEBRA_FIELD_MANUFACTURER, 't', ",\"manufacturer\":"},
                                      {NEBRA_FIELD_MODEL, 't', ",\"model\":"},
                                      {NEBRA_FIELD_SERIAL, 't', ",\"serial\":"}};
    static const col_t cols[] = {{NEBRA_FIELD_KEY, 't', "{\"key\":"},
                                 {NEBRA_FIELD_ID, 'x', ",\"id\":"},
                                 {NEBRA_FIELD_LABEL, 't', ",\"label\":"},
                                 {NEBRA_FIELD_SUBJECT, 't', ",\"subject\":"},
                                 {NEBRA_FIELD_ISSUER, 't', ",\"issuer\":"},
                                 {NEBRA_FIELD_NOT_BEFORE, 't', ",\"notBefore\":"},
                                 {NEBRA_FIELD_NOT_AFTER, 't', ",\"notAfter\":"}};
    static const char* const groups[] = {"rootCerts", "caCerts", "certsWithPrivateKey",
                                         "otherCerts"};
    nebra_list *info = NULL, *certs = NULL;
    uint64_t rows = 0, r;
    size_t g, len;
    int rc = failed(nebra_token_info(token, &info), "reading the token's information") ||
             row_json(o, info, 0, info_cols, COUNT(info_cols)) ||
             failed(nebra_token_harvest(token, &certs), "reading the certificates") ||
             failed(nebra_list_count(certs, &rows), "counting the certificates");
    for (g = 0; !rc && g < COUNT(groups); ++g) {
        const char* sep = "";
        puts_(o, g ? "],\"" : "},\""), puts_(o, groups[g]), puts_(o, "\":[");
        for (r = 0; !rc && r < rows; ++r) {
            char* group = field(certs, r, NEBRA_FIELD_GROUP, &len);
            if (!group) rc = 1;
            if (group && !strcmp(group, groups[g])) {
                puts_(o, sep), sep = ",";
                rc = row_json(o, certs, r, cols, COUNT(cols));
                puts_(o, "}");
            }
            free(group);
        }
    }
    puts_(o, "]}\n");
    rc |= failed(nebra_list_free(info), "freeing the list");
    return rc | failed(nebra_list_free(certs), "freeing the list");
}

/* Opens the token and logs in; then with a store, syncs the token's certificates with keys into
 * it, bound to csp; without one, writes the token as JSON into o. */
static int use_token(const char* module, const char* pin, const char* csp, const char* store,
                     out_t* o) {
    const char* stores[4] = {NULL, NULL, NULL, NULL};
    nebra_token* token = NULL;
    nebra_list* result = NULL;
    int rc;
    stores[NEBRA_GROUP_WITH_KEY] = store;
    rc = failed(nebra_token_open(module, &token), "opening the token") ||
         failed(nebra_token_login(token, (const uint8_t*)pin, strlen(pin)), "logging in") ||
         (store ? failed(nebra_sync(token, csp, stores, 0, &result), "syncing")
                : token_json(o, token));
    rc |= failed(nebra_list_free(result), "freeing the sync's result");
    return rc | failed(nebra_token_free(token), "freeing the token");
}

typedef struct {
    const char *module, *csp, *store, *pin;
    int rc;
} job_t;

static void* run_job(void* arg) {
    job_t* j = (job_t*)arg;
    j->rc = use_token(j->module, j->pin, j->csp, j->store, NULL);
    return NULL;
}

/* One edge case: the status a call returned against the one it must return. Every failure has a
 * message; one that is not an event has no event name, source or line. */
static int expect(const char* call, nebra_status* st, int32_t want) {
    int32_t got = nebra_status_code(st);
    int ok = got == want && (!st || *nebra_status_message(st, NULL)) &&
             (got == NEBRA_E_EVENT || (!*nebra_status_event(st, NULL) &&
                                       !*nebra_status_source(st, NULL) && !nebra_status_line(st)));
    printf("%s %s: status %d\n", ok ? "ok  " : "FAIL", call, (int)got);
    if (!ok && st) return failed(st, call);
    release(st);
    return !ok;
}
static int check(const char* what, int ok) {
    printf("%s %s\n", ok ? "ok  " : "FAIL", what);
    return !ok;
}
#define EXPECT(call, want) (bad += expect(#call, call, want))
#define CHECK(cond) (bad += check(#cond, cond))

/* A login the token refused: the Cryptoki error's event, CKR_PIN_INCORRECT its parameter. */
static int refused(nebra_status* st) {
    size_t len = 0;
    const char* event = nebra_status_event(st, &len);
    uint32_t i;
    int ok = nebra_status_code(st) == NEBRA_E_EVENT && len == strlen(event) &&
             !strcmp(event, "Pkcs11Error_CryptokiError"),
        code = 0;
    for (i = 0; i < nebra_status_param_count(st); ++i)
        code |= !strcmp(nebra_status_param_key(st, i, NULL), "CRYPTOKY_ERROR_CODE") &&
                !strcmp(nebra_status_param_value(st, i, NULL), "160");
    printf("%s a wrong PIN: %s (%s:%u)\n", ok && code ? "ok  " : "FAIL", event,
           nebra_status_source(st, NULL), (unsigned)nebra_status_line(st));
    release(st);
    return !(ok && code);
}

/* The edge cases of handles and arguments, on the token `module`; the last ones send it a wrong
 * PIN. Each prints ok or FAIL; the exit status is 1 when one failed. */
static int edge_cases(const char* module, const char* pin) {
    nebra_token *token = NULL, *again = NULL;
    nebra_list *info = NULL, *list = NULL;
    nebra_status* st;
    const char* stores[4] = {"MY", NULL, NULL, NULL};
    const uint8_t* right = (const uint8_t*)pin;
    uint64_t n = 0, size = 0, need = 0, len = strlen(pin);
    char buf[256], wrong[64];
    int bad = 0;
    memset(buf, '#', sizeof buf);
    snprintf(wrong, sizeof wrong, "%.40s-wrong", pin);
    CHECK(nebra_abi_version() == NEBRA_ABI_VERSION && *nebra_version());
    EXPECT(nebra_token_open(module, &token), NEBRA_OK);
    EXPECT(nebra_token_info(token, &info), NEBRA_OK);
    EXPECT(nebra_list_count(info, &n), NEBRA_OK), CHECK(n == 1);
    /* a NULL handle is no live handle; other NULL pointers are bad arguments; freeing NULL does
     * nothing; a failed sync still hands out its rows (none here) */
    EXPECT(nebra_list_count(NULL, &n), NEBRA_E_HANDLE);
    EXPECT(nebra_list_count(info, NULL), NEBRA_E_ARGUMENT);
    EXPECT(nebra_list_get(NULL, 0, NEBRA_FIELD_LABEL, buf, &size), NEBRA_E_HANDLE);
    EXPECT(nebra_list_get(info, 0, NEBRA_FIELD_LABEL, buf, NULL), NEBRA_E_ARGUMENT);
    EXPECT(nebra_token_login(NULL, right, len), NEBRA_E_HANDLE);
    EXPECT(nebra_token_login(token, right, 0), NEBRA_E_ARGUMENT);
    EXPECT(nebra_token_harvest(NULL, &list), NEBRA_E_HANDLE);
    EXPECT(nebra_sync(NULL, "csp", stores, 0, &list), NEBRA_E_HANDLE);
    EXPECT(nebra_list_count(list, &n), NEBRA_OK), CHECK(n == 0);
    EXPECT(nebra_list_free(list), NEBRA_OK);
    EXPECT(nebra_token_open(NULL, &again), NEBRA_E_ARGUMENT);
    EXPECT(nebra_token_open(module, NULL), NEBRA_E_ARGUMENT);
    EXPECT(nebra_list_free(NULL), NEBRA_OK);
    EXPECT(nebra_token_free(NULL), NEBRA_OK);
    EXPECT(nebra_status_free(NULL), NEBRA_OK);
    /* handles of another kind, or never handed out */
    EXPECT(nebra_list_count((nebra_list*)(void*)token, &n), NEBRA_E_HANDLE);
    EXPECT(nebra_token_info((nebra_token*)(void*)info, &list), NEBRA_E_HANDLE);
    EXPECT(nebra_list_count((nebra_list*)(void*)buf, &n), NEBRA_E_HANDLE);
    /* a buffer too small: nothing copied and the size needed told; then that size is enough */
    EXPECT(nebra_list_get(info, 0, NEBRA_FIELD_LABEL, NULL, &need), NEBRA_OK);
    CHECK(need > 0 && need < sizeof buf);
    size = need - 1;
    EXPECT(nebra_list_get(info, 0, NEBRA_FIELD_LABEL, buf, &size), NEBRA_E_BUFFER_SMALL);
    CHECK(size == need && buf[0] == '#');
    EXPECT(nebra_list_get(info, 0, NEBRA_FIELD_LABEL, buf, &size), NEBRA_OK);
    CHECK(size == need && buf[0] != '#' && buf[need - 1] != '#' && buf[need] == '#');
    /* fields and rows a list does not have */
    EXPECT(nebra_list_get(info, 0, 999, buf, &size), NEBRA_E_ARGUMENT);
    EXPECT(nebra_list_get(info, 0, 0, buf, &size), NEBRA_E_ARGUMENT);
    EXPECT(nebra_list_get(info, 0, NEBRA_FIELD_DER, buf, &size), NEBRA_E_ARGUMENT);
    EXPECT(nebra_list_get(info, 1, NEBRA_FIELD_LABEL, buf, &size), NEBRA_E_ARGUMENT);
    /* text that is not UTF-8: a stray byte, an overlong '/', a surrogate, a cut sequence */
    EXPECT(nebra_store_list("\xff", NULL, &list), NEBRA_E_UTF8);
    EXPECT(nebra_token_open("\xc0\xaf", &again), NEBRA_E_UTF8);
    EXPECT(nebra_remove_provider(NULL, "\xed\xa0\x80", &n), NEBRA_E_UTF8);
    EXPECT(nebra_remove_token(NULL, "csp", "pkcs11:token=\xe2\x82", &list), NEBRA_E_UTF8);
    EXPECT(nebra_list_free(list), NEBRA_OK);
    /* a wrong PIN; then no PIN goes to the token again in this process, on any handle */
    bad += refused(nebra_token_login(token, (const uint8_t*)wrong, strlen(wrong)));
    EXPECT(nebra_token_login(token, right, len), NEBRA_E_PIN_WITHHELD);
    EXPECT(nebra_token_open(module, &again), NEBRA_OK);
    EXPECT(nebra_token_login(again, right, len), NEBRA_E_PIN_WITHHELD);
    /* handles freed twice, and used after their free */
    EXPECT(nebra_list_free(info), NEBRA_OK);
    EXPECT(nebra_list_free(info), NEBRA_E_HANDLE);
    EXPECT(nebra_list_count(info, &n), NEBRA_E_HANDLE);
    EXPECT(nebra_token_free(token), NEBRA_OK);
    EXPECT(nebra_token_free(token), NEBRA_E_HANDLE);
    EXPECT(nebra_token_harvest(token, &list), NEBRA_E_HANDLE);
    EXPECT(nebra_token_free(again), NEBRA_OK);
    st = nebra_store_list("\xff", NULL, &list);
    EXPECT(nebra_status_free(st), NEBRA_OK);
    EXPECT(nebra_status_free(st), NEBRA_E_HANDLE);
    printf("%d edge case(s) failed\n", bad);
    return bad ? 1 : 0;
}

int main(int argc, char** argv) {
    const char* pin = getenv("NEBRA_PIN");
    out_t o = {NULL, 0, 0};
    int rc = 0, i, started[2];
    job_t jobs[2];
    pthread_t threads[2];
    if (argc != 4 && !(argc == 3 && !strcmp(argv[1], "--token")) &&
        !(argc == 3 && !strcmp(argv[1], "--edge")) &&
        !(argc == 7 && !strcmp(argv[1], "--threads"))) {
        fprintf(stderr,
                "usage: nebra_sync MODULE CSP STORE\n"
                "       nebra_sync --token MODULE\n"
                "       nebra_sync --threads MODULE1 MODULE2 CSP STORE1 STORE2\n"
                "       nebra_sync --edge MODULE\n"
                "The PIN is read from the environment variable NEBRA_PIN.\n");
        return 2;
    }
    if (!pin) return fputs("NEBRA_PIN is not set\n", stderr), 1;
    if (argc == 3 && !strcmp(argv[1], "--edge")) rc = edge_cases(argv[2], pin);
    if (argc == 3 && !strcmp(argv[1], "--token")) rc = use_token(argv[2], pin, NULL, NULL, &o);
    if (argc == 4)
        rc = use_token(argv[1], pin, argv[2], argv[3], NULL) || list_json(&o, argv[3], argv[2]);
    if (argc == 7) {
        for (i = 0; i < 2; ++i) {
            job_t j = {argv[2 + i], argv[4], argv[5 + i], pin, 1};
            jobs[i] = j;
            started[i] = !pthread_create(&threads[i], NULL, run_job, &jobs[i]);
            if (!started[i]) fputs("cannot start a thread\n", stderr);
        }
        for (i = 0; i < 2; ++i) rc |= !started[i] || pthread_join(threads[i], NULL) || jobs[i].rc;
        for (i = 0; i < 2 && !rc; ++i) rc = list_json(&o, argv[5 + i], argv[4]);
    }
    if (!rc && o.n) fwrite(o.p, 1, o.n, stdout);
    free(o.p);
    /* Every handle handed out has been freed. */
    if (nebra_live_handles() != 0) {
        fprintf(stderr, "%llu handle(s) left unfreed\n", (unsigned long long)nebra_live_handles());
        rc = 1;
    }
    return rc || fflush(stdout) ? 1 : 0;
}

/* Connects one emulated CAC card (libcacard, keys and certificates in an NSS database) to a reader
 * of the vpcd PC/SC driver over TCP. Starting the bridge inserts the card into that reader;
 * SIGTERM removes it. The bridge keeps the PIN retry counter that the emulated card lacks and
 * counts what tests need: APDUs, VERIFYs that carry a PIN, tries left.
 *
 * vpcd framing: every message is a 2-byte big-endian length and a body. A 1-byte body is a control
 * code (0 power off, 1 power on, 2 reset, 4 send the ATR); any other body is a command APDU,
 * answered with the response APDU in the same framing. */
#define _GNU_SOURCE
#include <cert.h>
#include <errno.h>
#include <getopt.h>
#include <libcacard.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pk11pub.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { CTRL_OFF = 0, CTRL_ON = 1, CTRL_RESET = 2, CTRL_ATR = 4 };
enum { INS_VERIFY = 0x20, MAX_MESSAGE = 0xffff };

static volatile sig_atomic_t g_stop, g_report;
static sigset_t g_waitmask; /* the mask while waiting: SIGTERM, SIGINT, SIGUSR1 let through */
static int g_verbose;

struct bridge {
    VReader* reader;
    unsigned char atr[64];
    int atr_len;
    unsigned char card_id[6]; /* this card's part of the card identifier */
    const char* counters;     /* counter file, or NULL */
    const char* ready;        /* created once the reader has powered the card on, or NULL */
    int powered;              /* a power-on came since the last ATR was sent */
    unsigned long apdus, verifies_with_pin;
    int max_tries, tries_left;
    int verified; /* a PIN was accepted since the card was last powered on or reset */
};

static void logf_(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("cardbridge: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
}

static void log_hex(const char* what, const unsigned char* p, size_t n) {
    if (!g_verbose) return;
    fprintf(stderr, "cardbridge: %s", what);
    for (size_t i = 0; i < n; i++) fprintf(stderr, " %02X", p[i]);
    fputc('\n', stderr);
}

static void on_signal(int sig) {
    if (sig == SIGUSR1)
        g_report = 1;
    else
        g_stop = 1;
}

/* Signals are blocked except while waiting in ppoll(), so none is lost between a check of the
 * flags and the wait. */
static void setup_signals(void) {
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGINT, &sa, NULL);
    sigaction(SIGUSR1, &sa, NULL);
    signal(SIGPIPE, SIG_IGN);
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGUSR1);
    sigprocmask(SIG_BLOCK, &block, &g_waitmask);
    sigdelset(&g_waitmask, SIGTERM);
    sigdelset(&g_waitmask, SIGINT);
    sigdelset(&g_waitmask, SIGUSR1);
}

/* Writes the counters as one line, through a temporary file and a rename so that a reader never
 * sees half a line. */
static void write_counters(const struct bridge* b) {
    if (!b->counters) return;
    char tmp[4096];
    if (snprintf(tmp, sizeof tmp, "%s.tmp", b->counters) >= (int)sizeof tmp) return;
    FILE* f = fopen(tmp, "w");
    if (!f) {
        logf_("cannot write %s: %s", tmp, strerror(errno));
        return;
    }
    fprintf(f, "apdus=%lu verifies_with_pin=%lu tries_left=%d\n", b->apdus, b->verifies_with_pin,
            b->tries_left);
    if (fclose(f) != 0 || rename(tmp, b->counters) != 0)
        logf_("cannot update %s: %s", b->counters, strerror(errno));
}

/* Takes the counts and the tries left from an earlier run's counter file, so that a card taken
 * out and put back keeps its retry counter. A missing file is a fresh card. */
static int resume_counters(struct bridge* b) {
    FILE* f = fopen(b->counters, "r");
    if (!f) return errno == ENOENT ? 0 : -1;
    int tries = -1;
    int n = fscanf(f, "apdus=%lu verifies_with_pin=%lu tries_left=%d", &b->apdus,
                   &b->verifies_with_pin, &tries);
    fclose(f);
    if (n != 3 || tries < 0 || tries > b->max_tries) return -1;
    b->tries_left = tries;
    return 0;
}

static void handle_signals(const struct bridge* b) {
    if (g_report) {
        g_report = 0;
        write_counters(b);
    }
}

/* Waits until fd is readable or a stop is asked for; 0 when readable. */
static int wait_readable(int fd, const struct bridge* b) {
    for (;;) {
        handle_signals(b);
        if (g_stop) return -1;
        struct pollfd p = {.fd = fd, .events = POLLIN};
        int r = ppoll(&p, 1, NULL, &g_waitmask);
        if (r > 0) return 0;
        if (r < 0 && errno != EINTR) return -1;
    }
}

static int recv_exact(int fd, unsigned char* buf, size_t n, const struct bridge* b) {
    static const int one = 1;
    size_t got = 0;
    while (got < n) {
        if (wait_readable(fd, b) != 0) return -1;
        ssize_t r = recv(fd, buf + got, n - got, 0);
        if (r == 0) return -1; /* the reader closed the connection */
        if (r < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return -1;
        }
        got += (size_t)r;
        /* vpcd sends a message's length and body in two writes: without an immediate ACK each
         * APDU would wait for the peer's delayed-ACK timer. Linux clears QUICKACK again on its
         * own, so it is set after every read. */
        setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof one);
    }
    return 0;
}

static int send_message(int fd, const unsigned char* body, size_t n) {
    unsigned char frame[2 + MAX_MESSAGE];
    frame[0] = (unsigned char)(n >> 8);
    frame[1] = (unsigned char)n;
    memcpy(frame + 2, body, n);
    size_t sent = 0;
    while (sent < n + 2) {
        ssize_t r = send(fd, frame + sent, n + 2 - sent, MSG_NOSIGNAL);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return -1;
        sent += (size_t)r;
    }
    return 0;
}

/* The emulated card reports the same card identifier in its capability container as every other
 * emulated card, so two of them would show one serial number. Real cards differ there: the last
 * six bytes of the identifier are replaced with this card's own. */
static void personalise(const struct bridge* b, unsigned char* out, int len) {
    static const unsigned char prefix[] = {0xa0, 0x00, 0x00, 0x00, 0x79, 0x03, 0x02, 0x40,
                                           0x70, 0x50, 0x72, 0x36, 0x0e, 0x00, 0x00};
    const int whole = (int)sizeof prefix + (int)sizeof b->card_id;
    for (int i = 0; i + whole <= len; i++) {
        if (memcmp(out + i, prefix, sizeof prefix) == 0)
            memcpy(out + i + sizeof prefix, b->card_id, sizeof b->card_id);
    }
}

/* The card's own identifier: the start of the SHA-256 of its first certificate. */
static int make_card_id(struct bridge* b, const char* nickname) {
    CERTCertificate* cert = PK11_FindCertFromNickname(nickname, NULL);
    if (!cert) return -1;
    GChecksum* sum = g_checksum_new(G_CHECKSUM_SHA256);
    g_checksum_update(sum, cert->derCert.data, cert->derCert.len);
    guint8 digest[32];
    gsize size = sizeof digest;
    g_checksum_get_digest(sum, digest, &size);
    g_checksum_free(sum);
    CERT_DestroyCertificate(cert);
    memcpy(b->card_id, digest, sizeof b->card_id);
    return 0;
}

static int card_transmit(struct bridge* b, unsigned char* apdu, size_t n, unsigned char* out) {
    int len = MAX_MESSAGE;
    if (vreader_xfr_bytes(b->reader, apdu, (int)n, out, &len) != VREADER_OK) {
        out[0] = 0x6f; /* no precise diagnosis */
        out[1] = 0x00;
        return 2;
    }
    personalise(b, out, len - 2);
    return len;
}

static int status_word(unsigned char* out, int sw1, int sw2) {
    out[0] = (unsigned char)sw1;
    out[1] = (unsigned char)sw2;
    return 2;
}

static int tries_status(const struct bridge* b, unsigned char* out) {
    if (b->tries_left == 0) return status_word(out, 0x69, 0x83); /* PIN blocked */
    return status_word(out, 0x63, 0xc0 | (b->tries_left > 15 ? 15 : b->tries_left));
}

/* VERIFY of the card's one PIN (P1 = P2 = 0). The emulated card keeps no retry counter and only
 * knows "accepted" (9000) or "refused" (6985); this adds the counter a real card has. */
static int verify(struct bridge* b, unsigned char* apdu, size_t n, unsigned char* out) {
    size_t lc = 0; /* a data length; a lone fifth byte would be Le, which VERIFY has none of */
    if (n > 5) lc = apdu[4] ? apdu[4] : n > 7 ? ((size_t)apdu[5] << 8) | apdu[6] : 0;
    if (lc == 0) { /* status query: no PIN, no try used */
        if (b->verified) return status_word(out, 0x90, 0x00);
        return tries_status(b, out);
    }
    b->verifies_with_pin++;
    if (b->tries_left == 0) return tries_status(b, out);
    int len = card_transmit(b, apdu, n, out);
    int sw = len >= 2 ? (out[len - 2] << 8) | out[len - 1] : 0;
    if (sw == 0x9000) {
        b->tries_left = b->max_tries;
        b->verified = 1;
    } else if (sw == 0x6985) {
        b->tries_left--;
        b->verified = 0;
        len = tries_status(b, out);
    }
    return len;
}

static int answer_apdu(struct bridge* b, unsigned char* apdu, size_t n, unsigned char* out) {
    b->apdus++;
    if (n >= 4 && apdu[1] == INS_VERIFY && apdu[2] == 0 && apdu[3] == 0)
        return verify(b, apdu, n, out);
    return card_transmit(b, apdu, n, out);
}

static void power(struct bridge* b, int on) {
    b->verified = 0;
    b->powered = on;
    if (on) {
        unsigned char atr[64];
        int len = sizeof atr;
        vreader_power_on(b->reader, atr, &len); /* the ATR never changes: the first one is kept */
    } else {
        vreader_power_off(b->reader);
    }
}

/* Tells whoever inserted the card that pcscd has it: it powered the card on and read the ATR. */
static void mark_ready(struct bridge* b) {
    FILE* f = fopen(b->ready, "w");
    if (f) fclose(f);
    b->ready = NULL;
}

/* Serves vpcd until it closes the connection (0) or a stop is asked for (1). */
static int serve(struct bridge* b, int fd) {
    static unsigned char msg[MAX_MESSAGE], out[MAX_MESSAGE];
    for (;;) {
        unsigned char hdr[2];
        if (recv_exact(fd, hdr, 2, b) != 0) return g_stop ? 1 : 0;
        size_t n = ((size_t)hdr[0] << 8) | hdr[1];
        if (n == 0) continue;
        if (recv_exact(fd, msg, n, b) != 0) return g_stop ? 1 : 0;
        if (n == 1) {
            if (g_verbose) logf_("control %d", msg[0]);
            switch (msg[0]) {
                case CTRL_OFF:
                    power(b, 0);
                    break;
                case CTRL_ON:
                case CTRL_RESET:
                    power(b, 1);
                    break;
                case CTRL_ATR:
                    /* Asked at every presence poll: answered from the kept ATR, never by a reset,
                     * which would drop a pending GET RESPONSE. */
                    if (send_message(fd, b->atr, (size_t)b->atr_len) != 0) return 0;
                    if (b->powered && b->ready) mark_ready(b);
                    break;
                default:
                    logf_("unknown control code %d", msg[0]);
            }
            continue;
        }
        log_hex("C-APDU", msg, n);
        int len = answer_apdu(b, msg, n, out);
        log_hex("R-APDU", out, (size_t)len);
        write_counters(b); /* before the answer: once a client has it, the file is current */
        if (send_message(fd, out, (size_t)len) != 0) return 0;
    }
}

static void sleep_ms(long ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    ppoll(NULL, 0, &ts, &g_waitmask);
}

/* Connects to the reader's port, retrying until it listens (pcscd may still be starting). */
static int connect_reader(const char* host, const char* port, int timeout_s,
                          const struct bridge* b) {
    struct addrinfo hints, *res = NULL;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET; /* vpcd listens on IPv4 only */
    hints.ai_socktype = SOCK_STREAM;
    int rc = getaddrinfo(host, port, &hints, &res);
    if (rc != 0) {
        logf_("cannot resolve %s:%s: %s", host, port, gai_strerror(rc));
        return -1;
    }
    struct timespec start, now;
    clock_gettime(CLOCK_MONOTONIC, &start);
    int fd = -1;
    for (;;) {
        fd = socket(res->ai_family, res->ai_socktype | SOCK_CLOEXEC, res->ai_protocol);
        if (fd >= 0 && connect(fd, res->ai_addr, res->ai_addrlen) == 0) break;
        if (fd >= 0) close(fd);
        fd = -1;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec - start.tv_sec >= timeout_s) {
            logf_("no reader listens on %s:%s", host, port);
            break;
        }
        sleep_ms(100);
        handle_signals(b);
        if (g_stop) break;
    }
    freeaddrinfo(res);
    if (fd >= 0) {
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof one);
    }
    return fd;
}

/* Builds libcacard's option string: one soft reader on the NSS database's own key slot, a CAC
 * card holding the named certificates (and their keys, where the database has them). */
static char* emul_options(const char* db, char** nicks, int count) {
    if (strpbrk(db, "\"\n")) return NULL;
    GString* s = g_string_new(NULL);
    g_string_append_printf(s, "db=\"sql:%s\" use_hw=no soft=(,nebra,CAC,", db);
    for (int i = 0; i < count; i++) {
        if (strpbrk(nicks[i], ",()") || !*nicks[i]) {
            g_string_free(s, TRUE);
            return NULL;
        }
        g_string_append_printf(s, ",%s", nicks[i]);
    }
    g_string_append_c(s, ')');
    return g_string_free(s, FALSE);
}

static void usage(FILE* f) {
    fprintf(f,
            "usage: cardbridge [options] NSSDB NICKNAME...\n"
            "Inserts an emulated CAC card into a vpcd reader: the card holds the certificates\n"
            "NICKNAME... (up to 3) of the NSS database NSSDB with their private keys; the\n"
            "database's password is the card's PIN. SIGTERM removes the card.\n"
            "  --host HOST         where pcscd with the vpcd driver runs (default 127.0.0.1)\n"
            "  --port PORT         the reader's TCP port (default 35963)\n"
            "  --counters FILE     keep \"apdus=N verifies_with_pin=M tries_left=K\" in FILE,\n"
            "                      rewritten at every change and on SIGUSR1\n"
            "  --resume            start from the counts and tries left in FILE, if it exists\n"
            "  --max-tries N       PIN tries of a fresh card (default 3)\n"
            "  --wait SECONDS      how long to retry connecting to the reader (default 10)\n"
            "  --ready FILE        create FILE once pcscd has powered the card on\n"
            "  --verbose           log control codes and APDUs to stderr\n"
            "  --help              show this\n");
}

int main(int argc, char** argv) {
    static const struct option longopts[] = {{"host", required_argument, NULL, 'H'},
                                             {"port", required_argument, NULL, 'p'},
                                             {"counters", required_argument, NULL, 'c'},
                                             {"resume", no_argument, NULL, 'r'},
                                             {"max-tries", required_argument, NULL, 'm'},
                                             {"wait", required_argument, NULL, 'w'},
                                             {"ready", required_argument, NULL, 'R'},
                                             {"verbose", no_argument, NULL, 'v'},
                                             {"help", no_argument, NULL, 'h'},
                                             {NULL, 0, NULL, 0}};
    const char *host = "127.0.0.1", *port = "35963";
    struct bridge b;
    memset(&b, 0, sizeof b);
    b.max_tries = 3;
    int resume = 0, wait_s = 10, opt;
    while ((opt = getopt_long(argc, argv, "", longopts, NULL)) != -1) {
        switch (opt) {
            case 'H':
                host = optarg;
                break;
            case 'p':
                port = optarg;
                break;
            case 'c':
                b.counters = optarg;
                break;
            case 'r':
                resume = 1;
                break;
            case 'm':
                b.max_tries = atoi(optarg);
                break;
            case 'w':
                wait_s = atoi(optarg);
                break;
            case 'R':
                b.ready = optarg;
                break;
            case 'v':
                g_verbose = 1;
                break;
            case 'h':
                usage(stdout);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
    }
    int nicks = argc - optind - 1;
    if (nicks < 1 || nicks > 3 || b.max_tries < 1 || b.max_tries > 15) {
        usage(stderr);
        return 2;
    }
    b.tries_left = b.max_tries;
    if (resume && b.counters && resume_counters(&b) != 0) {
        logf_("cannot take the counters from %s", b.counters);
        return 1;
    }
    setup_signals();

    char* options = emul_options(argv[optind], argv + optind + 1, nicks);
    VCardEmulOptions* parsed = options ? vcard_emul_options(options) : NULL;
    if (!parsed || vcard_emul_init(parsed) != VCARD_EMUL_OK) {
        logf_("no card from the NSS database %s with %s", argv[optind], argv[optind + 1]);
        return 1;
    }
    g_free(options);
    b.reader = vreader_get_reader_by_name("nebra");
    b.atr_len = sizeof b.atr;
    if (!b.reader || make_card_id(&b, argv[optind + 1]) != 0 ||
        vreader_power_on(b.reader, b.atr, &b.atr_len) != VREADER_OK) {
        logf_("the emulated card did not power on");
        return 1;
    }
    write_counters(&b);

    int fd = connect_reader(host, port, wait_s, &b);
    int status = 1;
    if (fd >= 0) {
        if (g_verbose) logf_("card inserted at %s:%s", host, port);
        status = serve(&b, fd) ? 0 : 1;
        if (status) logf_("the reader closed the connection");
        close(fd); /* the card leaves the reader */
    } else if (g_stop) {
        status = 0;
    }
    write_counters(&b);
    vreader_free(b.reader);
    for (VEvent* e; (e = vevent_get_next_vevent()) != NULL;) vevent_delete(e);
    vcard_emul_finalize();
    return status;
}

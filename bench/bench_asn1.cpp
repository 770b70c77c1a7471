// Certificate decoding and name rendering against OpenSSL, over the system CA bundle as DER:
//   decode: asn1::Certificate(der)            vs d2i_X509 + X509_free
//   render: Certificate::subject().toString() vs X509_NAME_print_ex (to a reused memory BIO)
// Prints the time per certificate of each and the ratios at the end.
//
//   build/bin/bench_asn1 [--benchmark_min_time=2]     (NEBRA_CA_BUNDLE=path for another bundle)
#include <benchmark/benchmark.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "nebralib/nebralib.h"

namespace {

constexpr unsigned long kNameFlags = XN_FLAG_SEP_CPLUS_SPC | XN_FLAG_DN_REV | XN_FLAG_FN_SN |
                                     XN_FLAG_DUMP_UNKNOWN_FIELDS | ASN1_STRFLGS_ESC_2253 |
                                     ASN1_STRFLGS_UTF8_CONVERT | ASN1_STRFLGS_DUMP_UNKNOWN |
                                     ASN1_STRFLGS_DUMP_DER;

std::vector<buffer::Buffer<unsigned char>>& corpus() {
    static std::vector<buffer::Buffer<unsigned char>> certs;
    return certs;
}

bool loadCorpus(const char* path) {
    BIO* in = BIO_new_file(path, "r");
    if (!in) return false;
    while (X509* x = PEM_read_bio_X509(in, nullptr, nullptr, nullptr)) {
        unsigned char* der = nullptr;
        int n = i2d_X509(x, &der);
        if (n > 0) corpus().emplace_back(der, static_cast<std::size_t>(n));
        OPENSSL_free(der);
        X509_free(x);
    }
    ERR_clear_error();
    BIO_free(in);
    return !corpus().empty();
}

void BM_Decode_Nebralib(benchmark::State& state) {
    for (auto _ : state) {
        for (const auto& der : corpus()) {
            asn1::Certificate c(der);
            benchmark::DoNotOptimize(c);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(corpus().size()));
}

void BM_Decode_OpenSSL(benchmark::State& state) {
    for (auto _ : state) {
        for (const auto& der : corpus()) {
            const unsigned char* p = der.data();
            X509* x = d2i_X509(nullptr, &p, static_cast<long>(der.size()));
            benchmark::DoNotOptimize(x);
            X509_free(x);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(corpus().size()));
}

void BM_Render_Nebralib(benchmark::State& state) {
    std::vector<asn1::Certificate> certs;
    for (const auto& der : corpus()) certs.emplace_back(der);
    for (auto _ : state) {
        for (const auto& c : certs) {
            buffer::Buffer<wchar_t> text = c.subject().toString();
            benchmark::DoNotOptimize(text);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(certs.size()));
}

void BM_Render_OpenSSL(benchmark::State& state) {
    std::vector<X509*> certs;
    for (const auto& der : corpus()) {
        const unsigned char* p = der.data();
        certs.push_back(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
    }
    BIO* out = BIO_new(BIO_s_mem());
    for (auto _ : state) {
        for (X509* x : certs) {
            X509_NAME_print_ex(out, X509_get_subject_name(x), 0, kNameFlags);
            char* text = nullptr;
            benchmark::DoNotOptimize(BIO_get_mem_data(out, &text));
            BIO_reset(out);
        }
    }
    BIO_free(out);
    for (X509* x : certs) X509_free(x);
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(certs.size()));
}

BENCHMARK(BM_Decode_Nebralib)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Decode_OpenSSL)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Render_Nebralib)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Render_OpenSSL)->Unit(benchmark::kMicrosecond);

// Keeps the CPU time per iteration (one pass over the corpus) of each benchmark.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& r : runs) {
            if (r.run_type == Run::RT_Iteration && !r.error_occurred)
                microseconds[r.benchmark_name()] = r.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> microseconds;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const char* path = std::getenv("NEBRA_CA_BUNDLE");
    if (!path) path = "/etc/ssl/certs/ca-certificates.crt";
    if (!loadCorpus(path)) {
        std::fprintf(stderr, "bench_asn1: no certificates in %s\n", path);
        return 1;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const double n = static_cast<double>(corpus().size());
    auto line = [&](const char* what, const char* ours, const char* theirs, const char* peer,
                    double target) {
        auto a = reporter.microseconds.find(ours);
        auto b = reporter.microseconds.find(theirs);
        if (a == reporter.microseconds.end() || b == reporter.microseconds.end()) return;
        std::printf("%s: nebralib %.3f us/cert, %s %.3f us/cert, ratio %.1fx (target %.0fx)\n",
                    what, a->second / n, peer, b->second / n, b->second / a->second, target);
    };
    std::printf("\n%zu certificates from %s\n", corpus().size(), path);
    line("decode", "BM_Decode_Nebralib", "BM_Decode_OpenSSL", "OpenSSL d2i_X509+X509_free", 50);
    line("render", "BM_Render_Nebralib", "BM_Render_OpenSSL", "OpenSSL X509_NAME_print_ex", 4);
    return 0;
}

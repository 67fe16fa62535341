// How fast the agent stages an update's payload, and how close it comes to
// what the machine and the transport allow:
//  - from a local payload file, against AES-128-GCM decryption and SHA-256
//    of the same bytes in memory on one core, and against a plain loop that
//    reads, decrypts, hashes and writes the same blocks; with the growth of
//    the peak resident memory while staging;
//  - over plain HTTP on loopback (the agent checks payload servers against
//    the system trust store, which a throw-away CA is not in), against
//    libcurl fetching the same bytes in one request, and block by block.
// ZEL_BENCH_STAGING_MB (default 1024) and ZEL_BENCH_NETWORK_MB (default 256)
// set the payload sizes. Everything lives in one temporary directory that
// is removed at exit.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <httplib.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "PayloadFile.h"
#include "SoftwareUpdate/Platform/PayloadManager.h"

namespace {

using Zel::Su::PayloadManager;
using Clock = std::chrono::steady_clock;

using namespace ZelBench;
static_assert(kTagBytes == PayloadManager::kTagBytes, "the agent's tag size");
constexpr uint64_t kMiB = 1024 * 1024;
// The in-memory limit runs over this much ciphertext, again and again.
constexpr uint64_t kLimitBufferBytes = 64 * kMiB;

uint64_t EnvMiB(const char* name, uint64_t fallback) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') {
        return fallback;
    }
    char* end = nullptr;
    unsigned long long value = std::strtoull(text, &end, 10);
    return *end == '\0' && value > 0 ? value : fallback;
}

double Seconds(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Decrypts one block, checking its tag, and hashes the plaintext;
// `context` already holds the key.
bool OpenBlock(EVP_CIPHER_CTX* context, EVP_MD_CTX* digest, const ZelPack::KeyBlock& keys,
               uint32_t index, const unsigned char* in, uint32_t size, unsigned char* out) {
    unsigned char nonce[12];
    BlockNonce(keys, index, nonce);
    int length = 0;
    int tail = 0;
    return EVP_DecryptInit_ex(context, nullptr, nullptr, nullptr, nonce) == 1 &&
           EVP_DecryptUpdate(context, nullptr, &length, Bytes(keys.aad), 16) == 1 &&
           EVP_DecryptUpdate(context, out, &length, in, static_cast<int>(size)) == 1 &&
           EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_GCM_SET_TAG, kTagBytes,
                               const_cast<unsigned char*>(in + size)) == 1 &&
           EVP_DecryptFinal_ex(context, out + length, &tail) == 1 &&
           EVP_DigestUpdate(digest, out, size) == 1;
}

// A cipher context with the key set, and a digest started.
bool StartOpening(const ZelPack::KeyBlock& keys, CipherPtr& cipher, DigestPtr& digest) {
    cipher.reset(EVP_CIPHER_CTX_new());
    digest.reset(EVP_MD_CTX_new());
    return cipher && digest && EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) == 1 &&
           EVP_DecryptInit_ex(cipher.get(), EVP_aes_128_gcm(), nullptr, Bytes(keys.key), nullptr) ==
               1;
}

// Fields of /proc/self/status in KiB; -1 when missing.
long StatusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const size_t length = std::strlen(field);
    while (std::getline(status, line)) {
        if (line.compare(0, length, field) == 0 && line.size() > length && line[length] == ':') {
            return std::strtol(line.c_str() + length + 1, nullptr, 10);
        }
    }
    return -1;
}

// Sets VmHWM back to the current VmRSS.
bool ResetPeakRss() {
    int fd = open("/proc/self/clear_refs", O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    bool reset = write(fd, "5", 1) == 1;
    close(fd);
    return reset;
}

// One throw-away PKI, product kit and directory for the whole run.
class Lab {
public:
    Lab() {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/zel-staging.XXXXXX";
        if (mkdtemp(&pattern[0]) == nullptr) {
            error_ = "cannot make a temporary directory";
            return;
        }
        dir_ = pattern;
        std::string command = "'" + std::string(ZEL_SOURCE_DIR) + "/tools/pki/make-pki.sh' '" +
                              dir_ + "/pki' zel.localhost FFFFFF0ACC >/dev/null 2>&1";
        if (std::system(command.c_str()) != 0) {
            error_ = "make-pki.sh failed";
            return;
        }
        kit_.domain = "zel.localhost";
        kit_.opid = "FFFFFF0ACC";
        kit_.keyPem = ReadText(file("pki/device.key"));
        kit_.password = ReadText(file("pki/device.pass"));
        kit_.swVersion = "4.8.0";
        curl_global_init(CURL_GLOBAL_ALL);
        ok_ = true;
    }
    ~Lab() {
        if (!dir_.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(dir_, ignored);
        }
    }
    Lab(const Lab&) = delete;
    Lab& operator=(const Lab&) = delete;

    static Lab& Get() {
        static Lab lab;
        return lab;
    }

    bool ok() const { return ok_; }
    const std::string& error() const { return error_; }
    const Zel::Su::ProductKit& kit() const { return kit_; }
    std::string file(const std::string& name) const { return dir_ + "/" + name; }

    // Writes `plainBytes` of payload to `name`; a local one when `url` is empty.
    bool makePayload(const std::string& name, uint64_t plainBytes, const std::string& url,
                     Payload& payload, std::string& error) const {
        PayloadSpec spec;
        spec.pkiDir = file("pki");
        spec.displayText = "Staging benchmark";
        spec.audiences = {"4.7.0", "4.8.0"};
        spec.url = url;
        return WritePayload(spec, file(name), plainBytes, payload, error);
    }

private:
    std::string dir_;
    std::string error_;
    Zel::Su::ProductKit kit_;
    bool ok_ = false;
};

// The machine's limit for the staging's own work: per block, AES-128-GCM
// decryption with the tag checked and SHA-256 of the plaintext, on one core
// from memory, over a buffer of ciphertext used again and again.
class DecryptHashLimit {
public:
    bool prepare(const ZelPack::KeyBlock& keys, uint64_t plainBytes) {
        keys_ = keys;
        plainBytes_ = plainBytes;
        bufferBlocks_ = static_cast<uint32_t>(std::min(plainBytes, kLimitBufferBytes) / kBlockSize);
        cipherText_.resize(static_cast<size_t>(bufferBlocks_) * (kBlockSize + kTagBytes));
        plain_.resize(kBlockSize);
        CipherPtr cipher(EVP_CIPHER_CTX_new());
        Plaintext source;
        for (uint32_t block = 0; block < bufferBlocks_; ++block) {
            source.fill(plain_.data(), kBlockSize);
            if (!cipher || !EncryptBlock(cipher.get(), keys_, block, plain_.data(), kBlockSize,
                                         cipherText_.data() + static_cast<size_t>(block) *
                                                                  (kBlockSize + kTagBytes))) {
                return false;
            }
        }
        return bufferBlocks_ > 0;
    }

    // Seconds for plainBytes, or a negative number when a block fails.
    double run() {
        CipherPtr cipher;
        DigestPtr digest;
        Clock::time_point start = Clock::now();
        if (!StartOpening(keys_, cipher, digest)) {
            return -1;
        }
        const uint64_t blocks = plainBytes_ / kBlockSize;
        for (uint64_t i = 0; i < blocks; ++i) {
            auto block = static_cast<uint32_t>(i % bufferBlocks_);
            const unsigned char* in =
                cipherText_.data() + static_cast<size_t>(block) * (kBlockSize + kTagBytes);
            if (!OpenBlock(cipher.get(), digest.get(), keys_, block, in, kBlockSize,
                           plain_.data())) {
                return -1;
            }
        }
        std::string hex = FinishHex(digest.get());
        benchmark::DoNotOptimize(hex);
        return hex.empty() ? -1 : Seconds(start);
    }

private:
    ZelPack::KeyBlock keys_;
    uint64_t plainBytes_ = 0;
    uint32_t bufferBlocks_ = 0;
    std::vector<unsigned char> cipherText_;
    std::vector<unsigned char> plain_;
};

// The staging's whole job done by a plain loop: pread a block from the
// payload file, decrypt and hash it, pwrite it to a fresh file. Seconds, or
// negative when anything fails or the hash is not the token's.
double PlainLoop(const Payload& payload, const std::string& outFile) {
    int in = open(payload.path.c_str(), O_RDONLY | O_CLOEXEC);
    int out = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    std::vector<unsigned char> cipherText(kBlockSize + kTagBytes);
    std::vector<unsigned char> plain(kBlockSize);
    CipherPtr cipher;
    DigestPtr digest;
    Clock::time_point start = Clock::now();
    bool ok = in >= 0 && out >= 0 && StartOpening(payload.keys, cipher, digest);
    const uint64_t blocks = (payload.plainBytes + kBlockSize - 1) / kBlockSize;
    for (uint64_t block = 0; ok && block < blocks; ++block) {
        auto size = static_cast<uint32_t>(
            std::min<uint64_t>(kBlockSize, payload.plainBytes - block * kBlockSize));
        uint64_t from = payload.dataOffset + block * (kBlockSize + kTagBytes);
        ok = pread(in, cipherText.data(), size + kTagBytes, static_cast<off_t>(from)) ==
                 static_cast<ssize_t>(size + kTagBytes) &&
             OpenBlock(cipher.get(), digest.get(), payload.keys, static_cast<uint32_t>(block),
                       cipherText.data(), size, plain.data()) &&
             WriteAll(out, plain.data(), size, block * kBlockSize);
    }
    ok = ok && FinishHex(digest.get()) == payload.hash;
    double seconds = Seconds(start);
    if (in >= 0) {
        close(in);
    }
    if (out >= 0) {
        close(out);
    }
    unlink(outFile.c_str());
    return ok ? seconds : -1;
}

// Stages the whole payload into a fresh staging file; seconds from locking
// to the last block, or negative with `error` set.
double Stage(const Payload& payload, const std::string& localLocation,
             const PayloadManager::Staging& staging, const std::string& stagingFile,
             long* peakGrowthKiB, std::string& error) {
    PayloadManager::RemoveStagingFile(stagingFile);
    PayloadManager manager(payload.token, localLocation, stagingFile, Lab::Get().kit());
    if (manager.getFailure()) {
        error = "the token was refused: " + manager.getFailReason();
        return -1;
    }
    bool reset = peakGrowthKiB != nullptr && ResetPeakRss();
    long before = reset ? StatusKiB("VmRSS") : -1;
    Clock::time_point start = Clock::now();
    if (manager.lockStagingFile(staging)) {
        while (manager.downloadNextBlock()) {
        }
    }
    double seconds = Seconds(start);
    if (peakGrowthKiB != nullptr) {
        long peak = StatusKiB("VmHWM");
        *peakGrowthKiB = reset && before >= 0 && peak >= 0 ? peak - before : -1;
    }
    bool complete = manager.isComplete();
    if (!complete) {
        error = "staging failed: " + manager.getFailReason();
    }
    manager.removeStagingFile();
    return complete ? seconds : -1;
}

void BM_LocalStaging(benchmark::State& state) {
    Lab& lab = Lab::Get();
    static Payload payload;
    static DecryptHashLimit limit;
    static std::string prepareError;
    static bool prepared = [&] {
        return lab.ok() &&
               lab.makePayload("local.bin", EnvMiB("ZEL_BENCH_STAGING_MB", 1024) * kMiB, "",
                               payload, prepareError) &&
               limit.prepare(payload.keys, payload.plainBytes);
    }();
    if (!prepared) {
        state.SkipWithError((lab.ok() ? prepareError : lab.error()).c_str());
        return;
    }
    double stagingSeconds = 0;
    double limitSeconds = 0;
    double loopSeconds = 0;
    long peakGrowthKiB = 0;
    bool peakKnown = true;
    for (auto _ : state) {
        double limitRun = limit.run();
        // Run on both sides of the staging, the faster counting: on a virtual
        // machine the first pass of an iteration can pay for fresh page cache.
        double loopBefore = PlainLoop(payload, lab.file("loop.raw"));
        std::string error;
        long growth = -1;
        double seconds = Stage(payload, payload.path, {}, lab.file("staging.raw"), &growth, error);
        double loopAfter = PlainLoop(payload, lab.file("loop.raw"));
        double loopRun = loopBefore < 0 || loopAfter < 0 ? -1 : std::min(loopBefore, loopAfter);
        if (limitRun < 0 || loopRun < 0 || seconds < 0) {
            state.SkipWithError(seconds < 0 ? error.c_str() : "the reference decryption failed");
            return;
        }
        limitSeconds += limitRun;
        loopSeconds += loopRun;
        stagingSeconds += seconds;
        peakKnown = peakKnown && growth >= 0;
        peakGrowthKiB = std::max(peakGrowthKiB, growth);
        state.SetIterationTime(seconds);
    }
    const double megabytes = static_cast<double>(payload.plainBytes) * state.iterations() / 1e6;
    const double blocks = static_cast<double>((payload.plainBytes + kBlockSize - 1) / kBlockSize) *
                          state.iterations();
    state.counters["MB/s"] = megabytes / stagingSeconds;
    state.counters["LimitMB/s"] = megabytes / limitSeconds;
    state.counters["Ratio"] = limitSeconds / stagingSeconds;
    state.counters["LoopMB/s"] = megabytes / loopSeconds;
    state.counters["LoopRatio"] = loopSeconds / stagingSeconds;
    state.counters["ExtraUs/block"] = (stagingSeconds - loopSeconds) * 1e6 / blocks;
    // -1 when the peak could not be reset, rather than pass off the process's own.
    state.counters["PeakGrowthKiB"] = peakKnown ? static_cast<double>(peakGrowthKiB) : -1;
    state.SetLabel(std::to_string(payload.plainBytes / kMiB) + " MiB");
}
BENCHMARK(BM_LocalStaging)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

// A plain-HTTP server for the payload file that honours Range, reading the
// file for every answer rather than keeping it in memory.
class PayloadServer {
public:
    bool start(const Payload& payload) {
        path_ = payload.path;
        size_ = payload.encryptedBytes();
        // As nginx allows by default; the agent reuses its connection.
        server_.set_keep_alive_max_count(1000);
        server_.Get("/payload.bin", [this](const httplib::Request&, httplib::Response& res) {
            res.set_content_provider(size_, "application/octet-stream",
                                     [this](size_t offset, size_t length, httplib::DataSink& sink) {
                                         return serve(offset, length, sink);
                                     });
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        if (port_ <= 0) {
            return false;
        }
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        for (int wait = 0; !server_.is_running() && wait < 5000; ++wait) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return server_.is_running();
    }
    ~PayloadServer() {
        server_.stop();
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/payload.bin"; }

private:
    bool serve(size_t offset, size_t length, httplib::DataSink& sink) const {
        thread_local std::vector<char> buffer(256 * 1024);
        int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            return false;
        }
        bool ok = true;
        while (ok && length > 0) {
            ssize_t got = pread(fd, buffer.data(), std::min(length, buffer.size()),
                                static_cast<off_t>(offset));
            ok = got > 0 && sink.write(buffer.data(), static_cast<size_t>(got));
            offset += got > 0 ? static_cast<size_t>(got) : 0;
            length -= got > 0 ? static_cast<size_t>(got) : 0;
        }
        close(fd);
        return ok;
    }

    httplib::Server server_;
    std::thread thread_;
    std::string path_;
    uint64_t size_ = 0;
    int port_ = -1;
};

size_t Discard(char*, size_t size, size_t count, void* total) {
    *static_cast<uint64_t*>(total) += size * count;
    return size * count;
}

using CurlPtr = std::unique_ptr<CURL, void (*)(CURL*)>;

CurlPtr FetchHandle(const std::string& url, uint64_t* received) {
    CurlPtr handle(curl_easy_init(), curl_easy_cleanup);
    if (handle) {
        curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
        curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, Discard);
        curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, received);
    }
    return handle;
}

// libcurl fetching the whole URL in one request on a new connection.
double FetchOnce(const std::string& url, uint64_t expected, std::string& error) {
    uint64_t received = 0;
    CurlPtr handle = FetchHandle(url, &received);
    Clock::time_point start = Clock::now();
    CURLcode code = handle ? curl_easy_perform(handle.get()) : CURLE_FAILED_INIT;
    double seconds = Seconds(start);
    long status = 0;
    if (code == CURLE_OK) {
        curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
    }
    if (code != CURLE_OK || status != 200 || received != expected) {
        error = "the single fetch failed: " + std::string(curl_easy_strerror(code));
        return -1;
    }
    return seconds;
}

// libcurl alone asking for the blocks one range at a time, as the staging
// does, on one kept-alive connection: what the transport allows that way.
double FetchRanged(const std::string& url, const Payload& payload, std::string& error) {
    uint64_t received = 0;
    CurlPtr handle = FetchHandle(url, &received);
    const uint64_t blocks = (payload.plainBytes + kBlockSize - 1) / kBlockSize;
    const uint64_t total = payload.encryptedBytes();
    Clock::time_point start = Clock::now();
    CURLcode code = handle ? CURLE_OK : CURLE_FAILED_INIT;
    long status = 206;
    for (uint64_t block = 0; code == CURLE_OK && status == 206 && block < blocks; ++block) {
        uint64_t first = block * (kBlockSize + kTagBytes);
        uint64_t last = std::min(first + kBlockSize + kTagBytes, total) - 1;
        std::string range = std::to_string(first) + "-" + std::to_string(last);
        curl_easy_setopt(handle.get(), CURLOPT_RANGE, range.c_str());
        code = curl_easy_perform(handle.get());
        if (code == CURLE_OK) {
            curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
        }
    }
    double seconds = Seconds(start);
    if (code != CURLE_OK || status != 206 || received != total) {
        error = "the ranged fetch failed: " + std::string(curl_easy_strerror(code));
        return -1;
    }
    return seconds;
}

void BM_NetworkStaging(benchmark::State& state) {
    Lab& lab = Lab::Get();
    static Payload payload;
    static PayloadServer server;
    static std::string prepareError;
    // The token names the server's URL, so the server comes first.
    static bool prepared = [&] {
        Payload blocks;
        blocks.path = lab.file("network.bin");
        blocks.plainBytes = EnvMiB("ZEL_BENCH_NETWORK_MB", 256) * kMiB;
        if (!lab.ok() || !server.start(blocks)) {
            prepareError = lab.ok() ? "the payload server did not start" : lab.error();
            return false;
        }
        return lab.makePayload("network.bin", blocks.plainBytes, server.url(), payload,
                               prepareError);
    }();
    if (!prepared) {
        state.SkipWithError(prepareError.c_str());
        return;
    }
    PayloadManager::Staging staging;
    staging.connectTimeoutMs = 10000;
    staging.messageTimeoutMs = 60000;
    staging.maxRetryCount = 1;
    double stagingSeconds = 0;
    double onceSeconds = 0;
    double rangedSeconds = 0;
    for (auto _ : state) {
        std::string error;
        double seconds = Stage(payload, "", staging, lab.file("staging.raw"), nullptr, error);
        double once = seconds < 0 ? -1 : FetchOnce(server.url(), payload.encryptedBytes(), error);
        double ranged = once < 0 ? -1 : FetchRanged(server.url(), payload, error);
        if (ranged < 0) {
            state.SkipWithError(error.c_str());
            return;
        }
        stagingSeconds += seconds;
        onceSeconds += once;
        rangedSeconds += ranged;
        state.SetIterationTime(seconds);
    }
    // All three move the same bytes: blocks and tags.
    const double megabytes =
        static_cast<double>(payload.encryptedBytes()) * state.iterations() / 1e6;
    const double blocks = static_cast<double>((payload.plainBytes + kBlockSize - 1) / kBlockSize) *
                          state.iterations();
    state.counters["MB/s"] = megabytes / stagingSeconds;
    state.counters["CurlMB/s"] = megabytes / onceSeconds;
    state.counters["Ratio"] = onceSeconds / stagingSeconds;
    state.counters["RangedMB/s"] = megabytes / rangedSeconds;
    state.counters["RangedRatio"] = rangedSeconds / stagingSeconds;
    state.counters["ExtraUs/block"] = (stagingSeconds - rangedSeconds) * 1e6 / blocks;
    state.SetLabel(std::to_string(payload.plainBytes / kMiB) + " MiB over http");
}
BENCHMARK(BM_NetworkStaging)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

// The demo's recognition server over real loopback connections, driven by plain libcurl:
// synthesized speech goes up gzip-compressed in 40 ms frames, newline-delimited JSON events come
// down. Raw sockets play the clients libcurl will not be: malformed, dripping or stalling. Also
// the gzip and WAV helpers the demo tools share with it, and its request-head check.

#include <arpa/inet.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/support/raw_server.h"
#include "tests/support/temp_dir.h"
#include "tests/support/tls_cert.h"
#include "tools/server/command_grammar.h"
#include "tools/server/gzip_stream.h"
#include "tools/server/http_request.h"
#include "tools/server/recognition_server.h"
#include "tools/server/speech.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KIV_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KIV_SANITIZED 1
#endif
#endif

namespace {

using namespace kiv::demo;
using kiv::test::RawConnection;
using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr size_t kFrameSamples = kSampleRate * 40 / 1000;
const std::vector<std::string>& phrases = example_phrases();

// Samples [at, at + count) as 16-bit little-endian bytes (the test hosts are little-endian).
std::string pcm_bytes(const std::vector<int16_t>& pcm, size_t at = 0, size_t count = SIZE_MAX) {
    return std::string(reinterpret_cast<const char*>(pcm.data() + at),
                       2 * std::min(count, pcm.size() - at));
}

// The upload body as a client of the layer builds it: one gzip member, one flushed piece per
// 40 ms frame, the member's end as the last piece.
std::vector<std::string> gzip_frames(const std::vector<int16_t>& pcm) {
    GzipWriter writer;
    std::vector<std::string> frames;
    for (size_t at = 0; at < pcm.size(); at += kFrameSamples) {
        frames.push_back(writer.push(pcm_bytes(pcm, at, kFrameSamples)));
    }
    frames.push_back(writer.finish());
    return frames;
}

// A one-way handshake: opened once, waited for with a bound.
struct Latch {
    std::promise<void> promise;
    std::shared_future<void> future = promise.get_future().share();
    void open() { promise.set_value(); }
    bool wait() { return future.wait_for(seconds(20)) == std::future_status::ready; }
};

// A client held before a piece opens `arrived`, then waits for `released`.
struct Hold {
    Latch arrived, released;
};

// One request: a GET without `body`, else a chunked POST of the pieces. Then what came back.
struct Call {
    std::string path;
    std::vector<std::string> body{}, headers{};
    long timeout_ms = 60000;
    Latch* heard = nullptr;      // opened once the reply holds a partial result
    size_t abort_at = SIZE_MAX;  // the client gives up before sending this piece
    size_t hold_at = SIZE_MAX;   // the client is held at `hold` before sending this piece
    Hold* hold = nullptr;
    CURLcode code = CURLE_OK;
    long status = 0;
    std::string reply{};
    size_t next = 0;  // the piece to send next
};

size_t on_reply(char* data, size_t size, size_t n, void* user) {
    Call& c = *static_cast<Call*>(user);
    c.reply.append(data, size * n);
    if (c.heard && c.reply.find("\"partial\"") != std::string::npos) {
        c.heard->open();
        c.heard = nullptr;
    }
    return size * n;
}

// Sends one piece per call (each fits libcurl's upload buffer).
size_t on_read(char* buffer, size_t size, size_t n, void* user) {
    Call& c = *static_cast<Call*>(user);
    if (c.next == c.hold_at) {
        c.hold->arrived.open();
        c.hold->released.wait();
    }
    if (c.next == c.abort_at || c.next == c.body.size() || c.body[c.next].size() > size * n) {
        return c.next == c.body.size() ? 0 : CURL_READFUNC_ABORT;
    }
    std::memcpy(buffer, c.body[c.next].data(), c.body[c.next].size());
    return c.body[c.next++].size();
}

Call audio(const std::string& id, std::vector<std::string> pieces, const char* coding = "gzip") {
    // The body goes only once the server grants the 100-continue (libcurl would wait ten
    // minutes, far past the transfer's time limit).
    return {"/v1/sessions/" + id + "/audio",
            std::move(pieces),
            {std::string("Content-Encoding: ") + coding, "Expect: 100-continue"}};
}

// A results stream; its body (one zero byte) is ignored.
Call listen(const std::string& id, long timeout_ms = 60000, Latch* heard = nullptr) {
    return {"/v1/sessions/" + id + "/results", {std::string(1, '\0')}, {}, timeout_ms, heard};
}

// Each line of a reply, parsed (a line that is not JSON gives a discarded value).
std::vector<json> events_of(const std::string& reply) {
    std::vector<json> events;
    std::istringstream in(reply);
    for (std::string line; std::getline(in, line);) {
        events.push_back(json::parse(line, nullptr, false));
    }
    return events;
}

// The string value of `name` in the first JSON object of `reply`; "<none>" when absent.
std::string field(const std::string& reply, const std::string& name) {
    const std::vector<json> events = events_of(reply);
    if (events.empty() || !events[0].is_object() || !events[0].contains(name)) {
        return "<none>";
    }
    return events[0][name].is_string() ? events[0][name].get<std::string>() : "<not a string>";
}

// True when every line of `events` but the last starts with `first` and the last with `last`,
// each line ending in a newline.
bool lines_are(const std::string& events, const std::string& first, const std::string& last) {
    if (events.empty() || events.back() != '\n') {
        return false;
    }
    size_t start = 0;
    size_t end = events.find('\n');
    while (end + 1 < events.size()) {
        if (events.compare(start, first.size(), first) != 0) {
            return false;
        }
        start = end + 1;
        end = events.find('\n', start);
    }
    return events.compare(start, last.size(), last) == 0;
}

// `name` in the last event of a results stream.
std::string last(const Call& c, const std::string& name) {
    return c.reply.size() < 2
               ? "<none>"
               : field(c.reply.substr(c.reply.rfind('\n', c.reply.size() - 2) + 1), name);
}

// A TCP connection to the server made from `source` (any address of 127/8), for the clients
// libcurl will not be: malformed, dripping, stalling. Null when it cannot connect.
std::unique_ptr<RawConnection> dial(uint16_t port, const std::string& source = "127.0.0.1") {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in from{}, to{};
    from.sin_family = to.sin_family = AF_INET;
    to.sin_port = htons(port);
    inet_pton(AF_INET, source.c_str(), &from.sin_addr);
    inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
        connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
        if (fd >= 0) {
            close(fd);
        }
        return nullptr;
    }
    return std::make_unique<RawConnection>(fd, nullptr);
}

// The status and Content-Length body of the next answer on `c`; status 0 when none came.
std::pair<int, std::string> answer_of(RawConnection& c, milliseconds wait = milliseconds(20000)) {
    const std::optional<std::string> head = c.read_head(wait);
    if (!head || head->compare(0, 9, "HTTP/1.1 ") != 0) {
        return {0, ""};
    }
    std::string lower = *head;
    std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
    const size_t at = lower.find("\r\ncontent-length:");
    const size_t length = at == std::string::npos ? 0 : std::stoul(lower.substr(at + 17));
    return {std::stoi(head->substr(9, 3)), c.read_exact(length, wait).value_or("")};
}

// A request sent whole on a new connection from `source`, and its answer.
std::pair<int, std::string> ask(uint16_t port, const std::string& request,
                                const std::string& source = "127.0.0.1") {
    std::unique_ptr<RawConnection> c = dial(port, source);
    if (!c || !c->write_all(request)) {
        return {0, ""};
    }
    return answer_of(*c);
}

// This process's resident memory in MB.
double resident_mb() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::stod(line.substr(6)) / 1024.0;
        }
    }
    return 0;
}

// Enough descriptors for hundreds of client and server sockets in one process.
void raise_descriptor_limit(rlim_t wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted) {
        limit.rlim_cur = std::min(wanted, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Word-level edit distance; adds the reference's word count to `words`.
size_t word_errors(const std::string& reference, const std::string& hypothesis, size_t* words) {
    auto split = [](const std::string& text) {
        std::istringstream in(text);
        return std::vector<std::string>(std::istream_iterator<std::string>(in), {});
    };
    const auto r = split(reference), h = split(hypothesis);
    std::vector<std::vector<size_t>> d(r.size() + 1, std::vector<size_t>(h.size() + 1));
    for (size_t i = 0; i <= r.size(); ++i) {
        for (size_t j = 0; j <= h.size(); ++j) {
            d[i][j] = i == 0 || j == 0 ? i + j
                                       : std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                                                   d[i - 1][j - 1] + (r[i - 1] != h[j - 1])});
        }
    }
    *words += r.size();
    return d[r.size()][h.size()];
}

// Frames inflating on arrival and in any split are the gzip fuzzer's; here, the verdicts.
TEST(GzipStreamTest, ConcatenatedMembersJoinAndDamagedStreamsAreRefused) {
    std::string joined;
    ASSERT_TRUE(gunzip(gzip("abc") + gzip("def"), &joined));  // concatenated members
    EXPECT_EQ(joined, "abcdef");

    const std::string whole = gzip(std::string(1000, 'x'));
    std::string flipped = whole;
    flipped[flipped.size() - 6] ^= 0x55;  // inside the CRC-32
    const std::pair<std::string, std::string> damaged[] = {
        {"not gzip at all", "invalid gzip"},
        {whole.substr(0, whole.size() - 4), "truncated"},
        {flipped, "invalid gzip"},
    };
    for (const auto& [bytes, says] : damaged) {
        std::string error;
        EXPECT_FALSE(gunzip(bytes, nullptr, &error));
        EXPECT_NE(error.find(says), std::string::npos) << error;
    }
}

TEST(WavTest, ReadsOnly16kMono16BitPcmAndToleratesStreamingSizes) {
    kiv::test::TempDir dir;
    const std::vector<int16_t> samples = {0, 1, -1, 32767, -32768};
    ASSERT_TRUE(write_wav16k(dir.file("ok.wav"), samples));
    const std::string ok = kiv::test::read_file(dir.file("ok.wav"));
    auto patched = [&](size_t at, const std::string& bytes) {
        return std::string(ok).replace(at, bytes.size(), bytes);
    };
    const std::pair<std::string, std::string> cases[] = {
        {ok, ""},
        {patched(40, "\xff\xff\xff\xff"), ""},  // data size left unknown by a streaming writer
        {patched(24, "\x22\x56"), "22050 Hz"},
        {patched(22, "\x02"), "2 channel(s)"},
        {"RIFX0000WAVE", "not a RIFF/WAVE file"},
        {"", "cannot open"},  // no file
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const std::string path = dir.file(std::to_string(i) + ".wav");
        if (!cases[i].first.empty()) {
            kiv::test::write_file(path, cases[i].first);
        }
        std::string error;
        const std::vector<int16_t> read = read_wav16k(path, &error);
        EXPECT_EQ(read, cases[i].second.empty() ? samples : std::vector<int16_t>()) << i;
        EXPECT_NE(error.find(cases[i].second), std::string::npos) << i << ": " << error;
    }
}

TEST(RequestHeadTest, HeadsAreCheckedAsTheyArriveAndRefusedAtTheirFirstBadByte) {
    const std::string head =
        "\r\nPOST /v1/sessions/a/audio HTTP/1.1\r\nHost: asr\r\nContent-Encoding: gzip\n"
        "Transfer-Encoding: chunked\r\n\r\n";
    const std::string request = head + "5\r\nbytes";
    for (size_t n = 0; n < head.size(); ++n) {
        ASSERT_EQ(check_request_head(request.data(), n, 8192).state, HeadCheck::kIncomplete) << n;
    }
    const HeadCheck whole = check_request_head(request.data(), request.size(), 8192);
    EXPECT_EQ(whole.state, HeadCheck::kComplete);
    EXPECT_EQ(whole.size, head.size());
    EXPECT_EQ(check_request_head(request.data(), request.size(), head.size() - 1).status, 431u);

    // Each refused as soon as the offending byte (the last one here) arrives.
    const std::pair<std::string, unsigned> bad[] = {
        {"\x16", 400},                   // a TLS handshake on the plain port
        {"GET h", 400},                  // not a path
        {"GET /a HTTP/2.0", 505},        // a version, but not 1.x
        {"GET /a HTTP/1.1x", 400},       // no line end
        {"GET /a HTTP/1.1\r\n ", 400},   // a folded line
        {"GET /a HTTP/1.1\r\nX ", 400},  // a space in a name
        {"GET /a HTTP/1.1\r\nX: a\x01", 400},
        {"GET /a HTTP/1.1\r\nX: a\rb", 400},
    };
    for (const auto& [text, status] : bad) {
        for (size_t n = 0; n + 1 < text.size(); ++n) {
            EXPECT_EQ(check_request_head(text.data(), n, 8192).state, HeadCheck::kIncomplete)
                << text << " at " << n;
        }
        const HeadCheck c = check_request_head(text.data(), text.size(), 8192);
        EXPECT_EQ(c.state, HeadCheck::kBad) << text;
        EXPECT_EQ(c.status, status) << text;
    }
    EXPECT_EQ(route_request("POST", "/v1/sessions/a.b_c-1/results").session, "a.b_c-1");
    EXPECT_EQ(route_request("POST", "/v1/sessions//audio").status, 400u);
    EXPECT_EQ(route_request("POST", "/v1/sessions/audio").status, 404u);
}

class RecognitionServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (size_t i = 0; i < phrases.size(); ++i) {
            ASSERT_FALSE(speech(i).empty()) << "cannot synthesize (espeak-ng, sox?) " << phrase(i);
        }
    }
    void start(ServerOptions options = ServerOptions(), const kiv::test::TlsCert* tls = nullptr) {
        server = std::make_unique<RecognitionServer>(options);
        ca = tls ? tls->cert_pem : "";
        ASSERT_TRUE(server->start("127.0.0.1", 0, ca, tls ? tls->key_pem : ""))
            << server->last_error();
        base = (tls ? "https" : "http") + std::string("://127.0.0.1:") +
               std::to_string(server->port());
    }
    Call run(Call c) {
        CURL* curl = curl_easy_init();
        curl_slist* headers = nullptr;
        for (const std::string& line : c.headers) {
            headers = curl_slist_append(headers, line.c_str());
        }
        curl_blob blob{const_cast<char*>(ca.data()), ca.size(), CURL_BLOB_COPY};
        curl_easy_setopt(curl, CURLOPT_URL, (base + c.path).c_str());
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, c.timeout_ms);
        curl_easy_setopt(curl, CURLOPT_EXPECT_100_TIMEOUT_MS, 600000L);
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &on_reply);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &c);
        curl_easy_setopt(curl, CURLOPT_POST, c.body.empty() ? 0L : 1L);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, &on_read);
        curl_easy_setopt(curl, CURLOPT_READDATA, &c);
        curl_easy_setopt(curl, CURLOPT_CAINFO_BLOB, ca.empty() ? nullptr : &blob);
        c.code = curl_easy_perform(curl);
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &c.status);
        curl_easy_cleanup(curl);
        curl_slist_free_all(headers);
        return c;
    }
    std::future<Call> later(Call c) {
        return std::async(std::launch::async, [this, c] { return run(c); });
    }
    // One utterance: its results and audio requests at once, in no particular order.
    std::pair<Call, Call> utter(const std::string& id, size_t phrase) {
        std::future<Call> down = later(listen(id));
        Call up = run(audio(id, gzip_frames(speech(phrase))));
        return {up, down.get()};
    }
    bool sessions_become(size_t count) {
        return server->wait_for_session_count(count, seconds(10));
    }
    // Speech for every example phrase, synthesized once for the whole suite.
    static const std::vector<int16_t>& speech(size_t i) {
        static const auto all = [] {
            std::vector<std::vector<int16_t>> pcm;
            for (const std::string& text : phrases) {
                pcm.push_back(synthesize(text));
            }
            return pcm;
        }();
        return all[i % all.size()];
    }
    static const std::string& phrase(size_t i) { return phrases[i % phrases.size()]; }

    std::unique_ptr<RecognitionServer> server;
    std::string base, ca;
};

TEST_F(RecognitionServerTest, OneUploadOfManyCommandsGetsAFinalPerCommand) {
    start();
    ASSERT_GE(phrases.size(), 10u);
    // Every example phrase, each followed by half a second of silence, in one upload.
    std::vector<int16_t> pcm;
    for (size_t i = 0; i < phrases.size(); ++i) {
        pcm.insert(pcm.end(), speech(i).begin(), speech(i).end());
        pcm.insert(pcm.end(), kSampleRate / 2, 0);
    }
    std::future<Call> down = later(listen("commands"));
    const Call up = run(audio("commands", gzip_frames(pcm)));
    ASSERT_EQ(up.status, 200) << up.reply;

    // Each command's final goes out at its pause, after partials of its own.
    std::vector<std::string> finals;
    size_t partials = 0;
    const Call results = down.get();
    for (const json& event : events_of(results.reply)) {
        ASSERT_TRUE(event.is_object()) << results.reply;
        if (event["type"] == "partial") {
            ++partials;
            continue;
        }
        ASSERT_EQ(event["type"], "final") << event;
        EXPECT_GT(partials, 0u) << "no partial before " << event;
        finals.push_back(event["text"]);
        partials = 0;
    }
    EXPECT_EQ(finals, phrases);
    const json answer = json::parse(up.reply, nullptr, false);
    EXPECT_EQ(answer.value("finals", json()), json(phrases)) << up.reply;
    EXPECT_EQ(answer.value("audio_ms", 0u), pcm.size() * 1000 / kSampleRate);

    size_t errors = 0, words = 0, exact = 0;
    for (size_t i = 0; i < phrases.size(); ++i) {
        const std::string heard = i < finals.size() ? finals[i] : "";
        errors += word_errors(phrase(i), heard, &words);
        exact += heard == phrase(i);
    }
    std::printf("[ report ] %zu/%zu commands exact, word accuracy %.1f%% (%zu words)\n", exact,
                phrases.size(), 100.0 * (1.0 - double(errors) / double(words)), words);
    EXPECT_TRUE(sessions_become(0));
}

TEST_F(RecognitionServerTest, SessionsMeetInEitherOrder) {
    start();
    // Results first: the listener hears a partial while the last frames are still held back.
    Latch heard;
    Hold held;
    std::future<Call> down = later(listen("early", 60000, &heard));
    ASSERT_TRUE(sessions_become(1));  // made by the results request alone
    Call plan = audio("early", gzip_frames(speech(0)));
    plan.hold_at = plan.body.size() - 3;
    plan.hold = &held;
    std::future<Call> up = later(plan);
    ASSERT_TRUE(held.arrived.wait());
    EXPECT_TRUE(heard.wait()) << "no partial result before the audio ended";
    held.released.open();
    EXPECT_EQ(up.get().status, 200);
    const Call early = down.get();
    EXPECT_EQ(last(early, "type"), "final");
    EXPECT_EQ(last(early, "text"), phrase(0));

    // Audio first: the events wait for the results stream, partials included.
    const Call sent = run(audio("late", gzip_frames(speech(1))));
    EXPECT_EQ(sent.status, 200) << sent.reply;
    EXPECT_EQ(field(sent.reply, "session"), "late");
    EXPECT_TRUE(sessions_become(1));
    const Call late = run(listen("late"));
    EXPECT_EQ(field(late.reply, "type"), "partial");  // the first event
    EXPECT_EQ(last(late, "text"), phrase(1));
    EXPECT_TRUE(sessions_become(0));
    // A finished session is not started again.
    EXPECT_EQ(run(listen("late")).status, 410);
    EXPECT_EQ(run(audio("late", gzip_frames(speech(1)))).status, 410);
}

TEST_F(RecognitionServerTest, BadOrConflictingRequestsAreRefusedWhileALiveSessionGoesOn) {
    start();
    // A live session whose upload is held mid-body, and a listener for a session to be spoilt.
    Hold held;
    std::future<Call> listener = later(listen("busy"));
    ASSERT_TRUE(sessions_become(1));  // made, so attached to, by the listener
    Call plan = audio("busy", gzip_frames(speech(4)));
    plan.hold_at = plan.body.size() / 2;
    plan.hold = &held;
    std::future<Call> first = later(plan);
    ASSERT_TRUE(held.arrived.wait());
    std::future<Call> junk_listener = later(listen("junk"));
    ASSERT_TRUE(sessions_become(2));

    const std::string whole = gzip(pcm_bytes(speech(0)));
    const std::tuple<Call, long, std::string> cases[] = {
        {{"/v1/health"}, 200, "\"status\":\"ok\""},
        {{"/v1/grammar"}, 200, "set a timer for five minutes"},
        {{"/v1/nothing"}, 404, "no such path"},
        {{"/v1/sessions/a/audio"}, 405, "use POST"},
        {audio("bad%20id", {gzip("xx")}), 400, "session id"},
        {audio(std::string(129, 'a'), {gzip("xx")}), 400, "session id"},
        {audio("junk", {std::string(5000, 'j')}), 400, "invalid gzip"},
        {audio("cut", {whole.substr(0, whole.size() / 2)}), 400, "truncated"},
        {audio("empty", {""}), 400, "empty body"},
        {audio("plain", {"raw pcm"}, "identity"), 415, "gzip-compressed"},
        {audio("busy", gzip_frames(speech(4))), 409, "already"},
        {listen("busy"), 409, "already"},
    };
    for (const auto& [call, status, says] : cases) {
        const Call c = run(call);
        EXPECT_EQ(c.status, status) << c.path;
        EXPECT_NE(c.reply.find(says), std::string::npos) << c.path << ": " << c.reply;
        const std::vector<json> lines = events_of(c.reply);
        EXPECT_TRUE(lines.size() == 1 && lines[0].is_object()) << c.reply;
        EXPECT_TRUE(status == 200 || field(c.reply, "error") != "<none>") << c.reply;
    }
    // Heads libcurl would not send: refused before any handler, still with a JSON body.
    const std::string post = "POST /v1/sessions/x/audio HTTP/1.1\r\nHost: a\r\n";
    const std::tuple<std::string, int, std::string> raw[] = {
        {"GARBAGE\r\n\r\n", 400, "request line"},
        {"GET /v1/health\r\n\r\n", 400, "request line"},
        {"GET /v1/health HTTP/2.0\r\nHost: a\r\n\r\n", 505, "HTTP/2.0"},
        {"GET /v1/health HTTP/1.1\r\n\r\n", 400, "Host"},
        {"GET /v1/health HTTP/1.1\r\nHost: a\r\nno colon\r\n\r\n", 400, "header line"},
        {"GET /v1/health HTTP/1.1\r\nHost: a\r\nX: \x7f\r\n\r\n", 400, "control"},
        {post + "Transfer-Encoding: gzip\r\n\r\n", 501, "chunked"},
        {post + "Content-Length: 12abc\r\n\r\n", 400, "Content-Length"},
        {post + "Content-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n", 400, "both"},
        {"GET /v1/health HTTP/1.1\r\nX: " + std::string(9000, 'x'), 431, "larger"},
        {"GET /v1/health HTTP/1.0\r\n\r\n", 200, "ok"},  // 1.0 needs no Host
    };
    for (const auto& [request, status, says] : raw) {
        const auto [got, body] = ask(server->port(), request);
        EXPECT_EQ(got, status) << request.substr(0, 60);
        EXPECT_NE(field(body, status == 200 ? "status" : "error").find(says), std::string::npos)
            << request.substr(0, 60) << ": " << body;
    }
    EXPECT_EQ(server->stats().heads_malformed, std::size(raw) - 1);
    EXPECT_EQ(last(junk_listener.get(), "type"), "error");  // told at once as well

    held.released.open();
    const Call up = first.get();
    EXPECT_EQ(up.status, 200) << up.reply;
    EXPECT_EQ(field(up.reply, "text"), phrase(4));
    EXPECT_EQ(last(listener.get(), "text"), phrase(4));
    EXPECT_TRUE(sessions_become(0));
}

TEST_F(RecognitionServerTest, ClientsThatHangUpEndOrFreeTheirSession) {
    start();
    // An upload cut off mid-body: its listener gets an error event, the session ends.
    std::future<Call> listener = later(listen("gone"));
    ASSERT_TRUE(sessions_become(1));
    Call cut = audio("gone", gzip_frames(speech(5)));
    cut.abort_at = 10;
    EXPECT_EQ(run(cut).code, CURLE_ABORTED_BY_CALLBACK);
    EXPECT_NE(last(listener.get(), "message").find("disconnect"), std::string::npos);
    EXPECT_TRUE(sessions_become(0));
    cut.path = "/v1/sessions/alone/audio";  // without a listener
    EXPECT_EQ(run(cut).code, CURLE_ABORTED_BY_CALLBACK);
    EXPECT_TRUE(sessions_become(0));

    // A listener that hangs up while nothing happens is let go, although nothing was written
    // to it: the session takes another (409 while the first still counts).
    EXPECT_EQ(run(listen("deaf", 300)).code, CURLE_OPERATION_TIMEDOUT);
    const auto until = std::chrono::steady_clock::now() + seconds(10);
    Call again;
    do {
        again = run(listen("deaf", 300));
    } while (again.status == 409 && std::chrono::steady_clock::now() < until);
    EXPECT_EQ(again.code, CURLE_OPERATION_TIMEDOUT) << again.status << " " << again.reply;
}

TEST_F(RecognitionServerTest, IdleSessionsAreEnded) {
    ServerOptions options;
    options.idle_timeout = milliseconds(500);
    start(options);
    const Call never = run(listen("never"));  // audio never comes
    EXPECT_TRUE(lines_are(never.reply, "", R"({"type":"error","status":408)") &&
                never.reply.find('\n') + 1 == never.reply.size())
        << never.reply;
    ASSERT_EQ(run(audio("uncollected", gzip_frames(speech(8)))).status, 200);
    EXPECT_TRUE(sessions_become(0));

    // An upload that stalls mid-body ends its session; its listener is told.
    Hold held;
    std::future<Call> listener = later(listen("stall"));
    ASSERT_TRUE(sessions_become(1));
    Call plan = audio("stall", gzip_frames(speech(7)));
    plan.hold_at = 5;
    plan.hold = &held;
    std::future<Call> stalled = later(plan);
    EXPECT_EQ(last(listener.get(), "type"), "error");
    EXPECT_TRUE(sessions_become(0));
    held.released.open();
    EXPECT_NE(stalled.get().status, 200);  // cut off (timed out) or refused (408)
}

TEST_F(RecognitionServerTest, StopWaitsForNoClient) {
    start();
    Hold held;
    std::future<Call> waiting = later(listen("wait"));
    Call plan = audio("stop", gzip_frames(speech(10)));
    plan.hold_at = 3;
    plan.hold = &held;
    std::future<Call> stalled = later(plan);
    ASSERT_TRUE(held.arrived.wait());
    ASSERT_TRUE(sessions_become(2));
    auto stopping = std::async(std::launch::async, [&] { server->stop(); });
    ASSERT_EQ(stopping.wait_for(seconds(30)), std::future_status::ready);
    const Call listener = waiting.get();
    EXPECT_TRUE(listener.reply.empty() || last(listener, "message") == "server stopping");
    held.released.open();
    EXPECT_NE(stalled.get().status, 200);
}

TEST_F(RecognitionServerTest, TwentyConcurrentSessionsEachGetTheirOwnTranscript) {
    start();
    std::vector<std::future<std::pair<Call, Call>>> running;
    for (size_t i = 0; i < 20; ++i) {
        running.push_back(std::async(std::launch::async,
                                     [this, i] { return utter("many-" + std::to_string(i), i); }));
    }
    for (size_t i = 0; i < running.size(); ++i) {
        const auto [up, down] = running[i].get();
        EXPECT_EQ(up.status, 200) << i << ": " << up.reply;
        EXPECT_EQ(last(down, "text"), phrase(i)) << "session " << i;
    }
    EXPECT_TRUE(sessions_become(0));
}

TEST_F(RecognitionServerTest, HttpsSessionWithASelfSignedCertificate) {
    const kiv::test::TlsCert cert = kiv::test::make_self_signed_cert("asr.demo.test");
    ServerOptions options;
    options.head_timeout = milliseconds(1000);
    start(options, &cert);
    // Encrypted heads cannot be checked before the handshake: one that never comes is cut off
    // all the same, while a session runs.
    std::unique_ptr<RawConnection> silent = dial(server->port());
    ASSERT_TRUE(silent);
    const auto [up, down] = utter("secure", 9);
    EXPECT_EQ(up.code, CURLE_OK);
    EXPECT_EQ(last(down, "text"), phrase(9));
    EXPECT_EQ(run({"/v1/health"}).status, 200);
    EXPECT_TRUE(silent->wait_for_close(seconds(20)));
    EXPECT_EQ(server->stats().heads_timed_out, 1u);
}

// Many clients at once: their own ctest label (slow), run by the whole suite.
class RecognitionServerLoadTest : public RecognitionServerTest {};

TEST_F(RecognitionServerLoadTest, DripAttackFromOneAddressLeavesRoomForEveryoneElse) {
    raise_descriptor_limit(4096);
    ServerOptions options;
    options.head_timeout = milliseconds(2000);
    start(options);
    const uint16_t port = server->port();
    const std::string attacker = "127.0.0.2";
    const std::string health = "GET /v1/health HTTP/1.1\r\nHost: asr\r\n\r\n";

    // 600 connections from one address, each adding a header line every 200 ms: an
    // inactivity limit would never end them.
    std::vector<std::unique_ptr<RawConnection>> attack;
    for (int i = 0; i < 600; ++i) {
        attack.push_back(dial(port, attacker));
        ASSERT_TRUE(attack.back()) << i;
        attack.back()->write_all("GET /v1/health HTTP/1.1\r\nHost: asr\r\n");
    }
    std::mutex m;
    std::condition_variable stop_cv;
    bool stop = false;
    std::thread dripper([&] {
        std::unique_lock<std::mutex> lock(m);
        for (int line = 0; !stop_cv.wait_for(lock, milliseconds(200), [&] { return stop; });
             ++line) {
            for (auto& c : attack) {
                c->write_all("X-Drip-" + std::to_string(line) + ": x\r\n");
            }
        }
    });

    // Meanwhile others are served at once: from another address, from the attacker's own
    // (a newcomer takes the place of its oldest unfinished head), and a slow but honest head.
    double slowest_ms = 0;
    for (int i = 0; i < 10; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(ask(port, health, i % 2 ? attacker : "127.0.0.1").first, 200);
        slowest_ms = std::max(slowest_ms, std::chrono::duration<double, std::milli>(
                                              std::chrono::steady_clock::now() - t0)
                                              .count());
    }
    std::unique_ptr<RawConnection> slow = dial(port, attacker);  // no ASSERT: the dripper runs
    EXPECT_EQ(slow && slow->write_bytewise(health) ? answer_of(*slow).first : 0, 200);
    EXPECT_EQ(run({"/v1/health"}).status, 200);
    const ServerStats during = server->stats();
    EXPECT_GE(during.connections_evicted + during.connections_refused, 600u - 64u);
    std::printf("[ report ] health during the attack: slowest of 10 answered in %.1f ms\n",
                slowest_ms);

    // Every attacking connection ends: at once to make room (503), or at its head's deadline
    // (408) although it never went quiet; at most the address's limit of them lasted that long.
    size_t late = 0, refused = 0;
    const auto until = std::chrono::steady_clock::now() + seconds(30);
    for (auto& c : attack) {
        const auto left = std::max(milliseconds(0), std::chrono::duration_cast<milliseconds>(
                                                        until - std::chrono::steady_clock::now()));
        const auto [status, body] = answer_of(*c, left);
        late += status == 408;
        refused += status == 503;
        EXPECT_NE(field(body, "error"), "<none>") << status;
        EXPECT_TRUE(c->wait_for_close(left));
    }
    {
        std::lock_guard<std::mutex> lock(m);
        stop = true;
    }
    stop_cv.notify_all();
    dripper.join();
    EXPECT_EQ(late + refused, attack.size());
    EXPECT_GE(late, 1u);
    EXPECT_LE(late, options.max_connections_per_address);
    EXPECT_EQ(server->stats().heads_timed_out, late);
    EXPECT_EQ(run({"/v1/health"}).status, 200);
}

TEST_F(RecognitionServerLoadTest, StalledUploadsShareAFewDecodersAndGiveTheirMemoryBack) {
    raise_descriptor_limit(4096);
    ServerOptions options;
    options.idle_timeout = milliseconds(2000);
    options.decoder_wait = milliseconds(500);
    start(options);
    // 256 sessions from 8 addresses (each under its connection limit), each sending 8 KB of
    // speech and then nothing: without a cap, one decoder each (over 2 GB).
    GzipWriter writer;
    const std::string piece = writer.push(pcm_bytes(speech(0), 0, 4096));
    char size_line[16];
    std::snprintf(size_line, sizeof size_line, "%zx\r\n", piece.size());
    double peak_mb = resident_mb();
    std::vector<std::unique_ptr<RawConnection>> stalled;
    for (int i = 0; i < 256; ++i) {
        stalled.push_back(dial(server->port(), "127.0.0." + std::to_string(10 + i % 8)));
        ASSERT_TRUE(stalled.back()) << i;
        stalled.back()->write_all("POST /v1/sessions/stall-" + std::to_string(i) +
                                  "/audio HTTP/1.1\r\nHost: asr\r\nContent-Encoding: gzip\r\n"
                                  "Transfer-Encoding: chunked\r\n\r\n" +
                                  size_line + piece + "\r\n");
        peak_mb = std::max(peak_mb, resident_mb());
    }
    // All are let go once idle; until then memory is sampled.
    const auto until = std::chrono::steady_clock::now() + seconds(60);
    for (auto& c : stalled) {
        while (!c->wait_for_close(milliseconds(20)) && std::chrono::steady_clock::now() < until) {
            peak_mb = std::max(peak_mb, resident_mb());
        }
    }
    EXPECT_TRUE(sessions_become(0));
    const ServerStats stats = server->stats();
    EXPECT_EQ(stats.decoders_live, 0u);
    EXPECT_LE(stats.decoders_peak, options.max_decoders);
    EXPECT_GT(stats.decoders_refused, 0u);
    std::printf("[ report ] %zu decoders at most, %llu uploads refused one; peak %.0f MB\n",
                stats.decoders_peak, static_cast<unsigned long long>(stats.decoders_refused),
                peak_mb);
#ifndef KIV_SANITIZED  // the sanitizer's allocator keeps freed memory on purpose
    EXPECT_LT(peak_mb, 400);
    // Freed decoders go back to the system, not just to the allocator.
    const auto back_by = std::chrono::steady_clock::now() + seconds(60);
    while (resident_mb() >= 100 && std::chrono::steady_clock::now() < back_by) {
        std::this_thread::sleep_for(milliseconds(100));  // polling a figure, bounded
    }
    EXPECT_LT(resident_mb(), 100);
#endif
}

}  // namespace

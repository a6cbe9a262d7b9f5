// The demo's recognition server over real loopback connections, driven by plain libcurl:
// synthesized speech goes up gzip-compressed in 40 ms frames, newline-delimited JSON events come
// down. Also the gzip and WAV helpers the demo tools share with it.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <iterator>
#include <memory>
#include <numeric>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tests/support/tls_cert.h"
#include "tools/cli/ndjson.h"
#include "tools/server/command_grammar.h"
#include "tools/server/gzip_stream.h"
#include "tools/server/recognition_server.h"
#include "tools/server/speech.h"

namespace {

using namespace kiv::demo;
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

// The string value of `name` in one flat JSON object.
std::string field(const std::string& json, const std::string& name) {
    const bool present = json.find("\"" + name + "\":\"") != std::string::npos;
    return present ? kiv::cli::json_string(json, name) : "<none>";
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
    return field(c.reply.substr(c.reply.rfind('\n', c.reply.size() - 2) + 1), name);
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

TEST(GzipStreamTest, FramesInflateOnArrivalAndDamagedStreamsAreRefused) {
    std::vector<int16_t> pcm(kFrameSamples * 10);
    std::iota(pcm.begin(), pcm.end(), -1000);
    const std::vector<std::string> frames = gzip_frames(pcm);
    GzipReader reader;
    std::string out;
    for (size_t f = 0; f < frames.size(); ++f) {
        ASSERT_TRUE(reader.push(reinterpret_cast<const uint8_t*>(frames[f].data()),
                                frames[f].size(), [&](const uint8_t* data, size_t size) {
                                    out.append(reinterpret_cast<const char*>(data), size);
                                    return true;
                                }));
        // Whole before the next frame is sent: nothing waits in zlib.
        EXPECT_EQ(out.size(), std::min<size_t>(f + 1, 10) * kFrameSamples * 2);
        EXPECT_EQ(reader.complete(), f + 1 == frames.size());
    }
    EXPECT_EQ(out, pcm_bytes(pcm));
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

TEST_F(RecognitionServerTest, SentencesComeBackAsExactTranscriptsAfterPartials) {
    start();
    ASSERT_GE(phrases.size(), 10u);
    size_t errors = 0, words = 0, exact = 0;
    for (size_t i = 0; i < phrases.size(); ++i) {
        const auto [up, down] = utter("sentence-" + std::to_string(i), i);
        EXPECT_EQ(up.status, 200) << up.reply;
        // Partials while the audio arrives, then exactly one final, last.
        EXPECT_TRUE(lines_are(down.reply, R"({"type":"partial")", R"({"type":"final")") &&
                    down.reply.find('\n') + 1 < down.reply.size())
            << down.reply;
        EXPECT_EQ(last(down, "text"), phrase(i));
        EXPECT_EQ(field(up.reply, "text"), phrase(i));
        errors += word_errors(phrase(i), last(down, "text"), &words);
        exact += last(down, "text") == phrase(i);
    }
    std::printf("[ report ] %zu/%zu sentences exact, word accuracy %.1f%% (%zu words)\n", exact,
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
    }
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
    start(ServerOptions(), &cert);
    const auto [up, down] = utter("secure", 9);
    EXPECT_EQ(up.code, CURLE_OK);
    EXPECT_EQ(last(down, "text"), phrase(9));
    EXPECT_EQ(run({"/v1/health"}).status, 200);
}

}  // namespace

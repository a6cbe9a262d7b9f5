// The demo's recognition server, driven over real loopback connections by plain libcurl:
// synthesized speech goes up gzip-compressed in 40 ms frames, newline-delimited JSON events come
// down. Also the gzip and WAV helpers the demo tools share with it.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tests/support/tls_cert.h"
#include "tools/server/command_grammar.h"
#include "tools/server/gzip_stream.h"
#include "tools/server/recognition_server.h"
#include "tools/server/speech.h"

namespace {

using kiv::demo::GzipReader;
using kiv::demo::GzipWriter;
using kiv::demo::RecognitionServer;
using kiv::demo::ServerOptions;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr size_t kFrameSamples = kiv::demo::kSampleRate * 40 / 1000;

// ---------------------------------------------------------------- helpers

std::string pcm_bytes(const int16_t* samples, size_t count) {
    std::string out(count * 2, '\0');
    for (size_t i = 0; i < count; ++i) {
        const uint16_t v = static_cast<uint16_t>(samples[i]);
        out[2 * i] = static_cast<char>(v & 0xff);
        out[2 * i + 1] = static_cast<char>(v >> 8);
    }
    return out;
}

// The upload body as a client of the layer builds it: one gzip member, one flushed piece per
// 40 ms frame, the member's end as the last piece.
std::vector<std::string> gzip_frames(const std::vector<int16_t>& pcm) {
    GzipWriter writer;
    std::vector<std::string> frames;
    for (size_t at = 0; at < pcm.size(); at += kFrameSamples) {
        const std::string raw =
            pcm_bytes(pcm.data() + at, std::min(kFrameSamples, pcm.size() - at));
        frames.push_back(writer.push(raw));
    }
    frames.push_back(writer.finish());
    return frames;
}

// A one-way handshake with a bounded wait on both sides.
class Gate {
public:
    void arrive_and_wait(milliseconds limit) {
        std::unique_lock<std::mutex> lock(m_);
        arrived_ = true;
        cv_.notify_all();
        cv_.wait_for(lock, limit, [this] { return released_; });
    }
    bool wait_arrived(milliseconds limit) {
        std::unique_lock<std::mutex> lock(m_);
        return cv_.wait_for(lock, limit, [this] { return arrived_; });
    }
    void release() {
        std::lock_guard<std::mutex> lock(m_);
        released_ = true;
        cv_.notify_all();
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    bool arrived_ = false;
    bool released_ = false;
};

struct Endpoint {
    std::string base;    // scheme://127.0.0.1:port
    std::string ca_pem;  // trusted certificate for HTTPS
};

Endpoint http_endpoint(const RecognitionServer& server) {
    return {"http://127.0.0.1:" + std::to_string(server.port()), ""};
}

struct Reply {
    CURLcode code = CURLE_OK;
    long status = 0;
    std::string body;
    std::vector<std::string> head_lines;
};

size_t collect(char* data, size_t size, size_t n, void* user) {
    static_cast<std::string*>(user)->append(data, size * n);
    return size * n;
}

size_t collect_head(char* data, size_t size, size_t n, void* user) {
    static_cast<std::vector<std::string>*>(user)->emplace_back(data, size * n);
    return size * n;
}

struct Easy {
    Easy(const Endpoint& endpoint, const std::string& path, Reply* reply)
        : handle(curl_easy_init()) {
        curl_easy_setopt(handle, CURLOPT_URL, (endpoint.base + path).c_str());
        curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, 60000L);
        curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &collect);
        curl_easy_setopt(handle, CURLOPT_WRITEDATA, &reply->body);
        curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &collect_head);
        curl_easy_setopt(handle, CURLOPT_HEADERDATA, &reply->head_lines);
        if (!endpoint.ca_pem.empty()) {
            curl_blob blob{const_cast<char*>(endpoint.ca_pem.data()), endpoint.ca_pem.size(),
                           CURL_BLOB_COPY};
            curl_easy_setopt(handle, CURLOPT_CAINFO_BLOB, &blob);
        }
    }
    ~Easy() {
        curl_slist_free_all(headers);
        curl_easy_cleanup(handle);
    }
    void header(const char* line) {
        headers = curl_slist_append(headers, line);
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    }
    void perform(Reply* reply) {
        reply->code = curl_easy_perform(handle);
        curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &reply->status);
    }
    CURL* handle;
    curl_slist* headers = nullptr;
};

Reply get(const Endpoint& endpoint, const std::string& path) {
    Reply reply;
    Easy easy(endpoint, path, &reply);
    easy.perform(&reply);
    return reply;
}

struct UploadPlan {
    std::vector<std::string> frames;
    size_t abort_at = SIZE_MAX;  // abort the transfer before this frame
    size_t gate_at = SIZE_MAX;   // stop before this frame until the gate opens
    Gate* gate = nullptr;
    bool expect_100 = false;
    // progress
    size_t next = 0;
    size_t offset = 0;
};

size_t feed(char* buffer, size_t size, size_t n, void* user) {
    UploadPlan& plan = *static_cast<UploadPlan*>(user);
    if (plan.offset == 0) {
        if (plan.next == plan.abort_at) {
            return CURL_READFUNC_ABORT;
        }
        if (plan.next == plan.gate_at && plan.gate) {
            plan.gate->arrive_and_wait(seconds(20));
            plan.gate = nullptr;
        }
    }
    while (plan.next < plan.frames.size() && plan.offset == plan.frames[plan.next].size()) {
        ++plan.next;
        plan.offset = 0;
    }
    if (plan.next >= plan.frames.size()) {
        return 0;
    }
    const std::string& frame = plan.frames[plan.next];
    const size_t count = std::min(size * n, frame.size() - plan.offset);
    std::memcpy(buffer, frame.data() + plan.offset, count);
    plan.offset += count;
    if (plan.offset == frame.size()) {
        ++plan.next;
        plan.offset = 0;
    }
    return count;
}

Reply upload(const Endpoint& endpoint, const std::string& id, UploadPlan plan) {
    Reply reply;
    Easy easy(endpoint, "/v1/sessions/" + id + "/audio", &reply);
    curl_easy_setopt(easy.handle, CURLOPT_POST, 1L);
    curl_easy_setopt(easy.handle, CURLOPT_READFUNCTION, &feed);
    curl_easy_setopt(easy.handle, CURLOPT_READDATA, &plan);
    easy.header("Content-Type: application/octet-stream");
    easy.header("Content-Encoding: gzip");
    easy.header("Transfer-Encoding: chunked");
    if (plan.expect_100) {
        // A long wait: the 100 must come from the server, not from libcurl giving up on it.
        easy.header("Expect: 100-continue");
        curl_easy_setopt(easy.handle, CURLOPT_EXPECT_100_TIMEOUT_MS, 30000L);
    } else {
        easy.header("Expect:");
    }
    easy.perform(&reply);
    return reply;
}

Reply upload_pcm(const Endpoint& endpoint, const std::string& id, const std::vector<int16_t>& pcm) {
    UploadPlan plan;
    plan.frames = gzip_frames(pcm);
    return upload(endpoint, id, std::move(plan));
}

Reply upload_raw(const Endpoint& endpoint, const std::string& id, const std::string& body) {
    UploadPlan plan;
    plan.frames = {body};
    return upload(endpoint, id, std::move(plan));
}

// Opens the results stream; the request body is one zero byte. `on_data` sees the body as it
// arrives; `timeout_ms` makes the client give up (and hang up) early.
Reply results(const Endpoint& endpoint, const std::string& id,
              std::function<void(const std::string& so_far)> on_data = nullptr,
              long timeout_ms = 60000) {
    struct Sink {
        std::string* body;
        std::function<void(const std::string&)> on_data;
    };
    Reply reply;
    Easy easy(endpoint, "/v1/sessions/" + id + "/results", &reply);
    Sink sink{&reply.body, std::move(on_data)};
    static const char zero = '\0';
    curl_easy_setopt(easy.handle, CURLOPT_POSTFIELDS, &zero);
    curl_easy_setopt(easy.handle, CURLOPT_POSTFIELDSIZE, 1L);
    curl_easy_setopt(easy.handle, CURLOPT_TIMEOUT_MS, timeout_ms);
    curl_easy_setopt(easy.handle, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(
        easy.handle, CURLOPT_WRITEFUNCTION,
        +[](char* data, size_t size, size_t n, void* user) -> size_t {
            Sink& to = *static_cast<Sink*>(user);
            to.body->append(data, size * n);
            if (to.on_data) {
                to.on_data(*to.body);
            }
            return size * n;
        });
    easy.header("Content-Type: application/octet-stream");
    easy.perform(&reply);
    return reply;
}

// The string value of "name" in a flat JSON object (enough for the server's events).
std::string json_string(const std::string& json, const std::string& name) {
    const std::string key = "\"" + name + "\":\"";
    size_t at = json.find(key);
    if (at == std::string::npos) {
        return "<missing " + name + ">";
    }
    std::string out;
    for (at += key.size(); at < json.size() && json[at] != '"'; ++at) {
        if (json[at] == '\\' && at + 1 < json.size()) {
            ++at;
        }
        out.push_back(json[at]);
    }
    return out;
}

std::vector<std::string> lines_of(const std::string& body) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < body.size()) {
        size_t end = body.find('\n', start);
        if (end == std::string::npos) {
            end = body.size();
        }
        if (end > start) {
            lines.push_back(body.substr(start, end - start));
        }
        start = end + 1;
    }
    return lines;
}

struct Outcome {
    Reply upload;
    Reply results;
    std::vector<std::string> events;
    std::string final_text() const {
        return !events.empty() && json_string(events.back(), "type") == "final"
                   ? json_string(events.back(), "text")
                   : "<no final>";
    }
    size_t partials() const {
        size_t n = 0;
        for (const auto& e : events) {
            n += json_string(e, "type") == "partial";
        }
        return n;
    }
};

// Both requests of one session at once, in no particular order.
Outcome run_session(const Endpoint& endpoint, const std::string& id,
                    const std::vector<int16_t>& pcm) {
    Outcome outcome;
    auto down = std::async(std::launch::async, [&] { return results(endpoint, id); });
    outcome.upload = upload_pcm(endpoint, id, pcm);
    outcome.results = down.get();
    outcome.events = lines_of(outcome.results.body);
    return outcome;
}

size_t word_errors(const std::string& reference, const std::string& hypothesis, size_t* words) {
    auto split = [](const std::string& s) {
        std::vector<std::string> out;
        size_t start = 0;
        while ((start = s.find_first_not_of(' ', start)) != std::string::npos) {
            const size_t end = s.find(' ', start);
            out.push_back(s.substr(start, end - start));
            start = end;
        }
        return out;
    };
    const auto ref = split(reference), hyp = split(hypothesis);
    std::vector<size_t> row(hyp.size() + 1);
    for (size_t j = 0; j <= hyp.size(); ++j) {
        row[j] = j;
    }
    for (size_t i = 1; i <= ref.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= hyp.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min(
                {row[j] + 1, row[j - 1] + 1, diagonal + (ref[i - 1] == hyp[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    *words = ref.size();
    return row[hyp.size()];
}

// ---------------------------------------------------------------- gzip and WAV helpers

TEST(GzipStreamTest, EveryFlushedFrameInflatesOnArrival) {
    std::vector<int16_t> pcm(kFrameSamples * 10);
    for (size_t i = 0; i < pcm.size(); ++i) {
        pcm[i] = static_cast<int16_t>((i * 37) % 2000 - 1000);
    }
    const auto frames = gzip_frames(pcm);
    GzipReader reader;
    std::string out;
    auto sink = [&](const uint8_t* d, size_t n) {
        out.append(reinterpret_cast<const char*>(d), n);
        return true;
    };
    for (size_t f = 0; f + 1 < frames.size(); ++f) {
        ASSERT_TRUE(reader.push(reinterpret_cast<const uint8_t*>(frames[f].data()),
                                frames[f].size(), sink));
        // The frame is whole before the next one is sent: nothing waits in zlib.
        EXPECT_EQ(out.size(), (f + 1) * kFrameSamples * 2);
        EXPECT_FALSE(reader.complete());
    }
    ASSERT_TRUE(reader.push(reinterpret_cast<const uint8_t*>(frames.back().data()),
                            frames.back().size(), sink));
    EXPECT_TRUE(reader.complete());
    EXPECT_EQ(out, pcm_bytes(pcm.data(), pcm.size()));
}

TEST(GzipStreamTest, ReaderAcceptsConcatenatedMembersAndRejectsCorruptOrTruncatedInput) {
    std::string joined;
    ASSERT_TRUE(kiv::demo::gunzip(kiv::demo::gzip("abc") + kiv::demo::gzip("def"), &joined));
    EXPECT_EQ(joined, "abcdef");

    std::string error;
    EXPECT_FALSE(kiv::demo::gunzip("not gzip at all", nullptr, &error));
    EXPECT_NE(error.find("invalid gzip"), std::string::npos) << error;

    const std::string whole = kiv::demo::gzip(std::string(1000, 'x'));
    EXPECT_FALSE(kiv::demo::gunzip(whole.substr(0, whole.size() - 4), nullptr, &error));
    EXPECT_NE(error.find("truncated"), std::string::npos) << error;

    std::string flipped = whole;
    flipped[flipped.size() - 6] ^= 0x55;  // inside the CRC-32
    EXPECT_FALSE(kiv::demo::gunzip(flipped, nullptr, &error));

    GzipWriter writer;
    writer.push(std::string("x"));
    EXPECT_FALSE(writer.finish().empty());
    EXPECT_TRUE(writer.finished());
    EXPECT_EQ(writer.finish(), "");
    EXPECT_EQ(writer.push(std::string("late")), "");
}

TEST(WavTest, ReadsOnly16kMono16BitPcmAndToleratesStreamingSizes) {
    kiv::test::TempDir dir;
    const std::vector<int16_t> samples = {0, 1, -1, 32767, -32768};
    ASSERT_TRUE(kiv::demo::write_wav16k(dir.file("ok.wav"), samples));
    std::string error;
    EXPECT_EQ(kiv::demo::read_wav16k(dir.file("ok.wav"), &error), samples) << error;

    std::string bytes = kiv::test::read_file(dir.file("ok.wav"));
    std::string streaming = bytes;
    std::memset(&streaming[40], 0xff, 4);  // data size unknown to the writer
    kiv::test::write_file(dir.file("stream.wav"), streaming);
    EXPECT_EQ(kiv::demo::read_wav16k(dir.file("stream.wav")), samples);

    std::string rate = bytes;
    rate[24] = '\x22';  // 16,000 Hz becomes 22,050 Hz (0x5622)
    rate[25] = '\x56';
    kiv::test::write_file(dir.file("rate.wav"), rate);
    EXPECT_TRUE(kiv::demo::read_wav16k(dir.file("rate.wav"), &error).empty());
    EXPECT_NE(error.find("22050 Hz"), std::string::npos) << error;

    std::string stereo = bytes;
    stereo[22] = 2;
    kiv::test::write_file(dir.file("stereo.wav"), stereo);
    EXPECT_TRUE(kiv::demo::read_wav16k(dir.file("stereo.wav"), &error).empty());

    kiv::test::write_file(dir.file("junk.wav"), "RIFX0000WAVE");
    EXPECT_TRUE(kiv::demo::read_wav16k(dir.file("junk.wav"), &error).empty());
    EXPECT_TRUE(kiv::demo::read_wav16k(dir.file("missing.wav"), &error).empty());
}

TEST(GrammarTest, EveryExamplePhraseUsesOnlyGrammarWords) {
    const auto words = kiv::demo::command_grammar_words();
    for (const std::string& phrase : kiv::demo::example_phrases()) {
        size_t start = 0;
        while (start < phrase.size()) {
            size_t end = phrase.find(' ', start);
            if (end == std::string::npos) {
                end = phrase.size();
            }
            EXPECT_TRUE(words.count(phrase.substr(start, end - start)))
                << phrase.substr(start, end - start) << " in '" << phrase << "'";
            start = end + 1;
        }
    }
    EXPECT_TRUE(words.count("kitchen"));
    EXPECT_FALSE(words.count("room>"));
}

// ---------------------------------------------------------------- the server

// Speech for every example phrase, synthesized once for the whole suite.
class RecognitionServerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        corpus_ = new std::vector<std::vector<int16_t>>;
        for (const std::string& phrase : kiv::demo::example_phrases()) {
            std::string error;
            corpus_->push_back(kiv::demo::synthesize(phrase, &error));
            if (corpus_->back().empty()) {
                synth_error_ = new std::string("'" + phrase + "': " + error);
                return;
            }
        }
    }
    static void TearDownTestSuite() {
        delete corpus_;
        delete synth_error_;
        corpus_ = nullptr;
        synth_error_ = nullptr;
    }
    void SetUp() override {
        ASSERT_EQ(synth_error_, nullptr)
            << "synthesis failed (espeak-ng and sox installed?) " << *synth_error_;
    }
    void start(RecognitionServer& server) {
        ASSERT_TRUE(server.start("127.0.0.1", 0)) << server.last_error();
        ASSERT_NE(server.port(), 0);
    }
    static const std::vector<int16_t>& speech(size_t i) { return (*corpus_)[i % corpus_->size()]; }
    static const std::string& phrase(size_t i) {
        return kiv::demo::example_phrases()[i % kiv::demo::example_phrases().size()];
    }

    static std::vector<std::vector<int16_t>>* corpus_;
    static std::string* synth_error_;
};
std::vector<std::vector<int16_t>>* RecognitionServerTest::corpus_ = nullptr;
std::string* RecognitionServerTest::synth_error_ = nullptr;

TEST_F(RecognitionServerTest, SynthesizedSpeechIs16kAudioOfPlausibleLength) {
    for (size_t i = 0; i < kiv::demo::example_phrases().size(); ++i) {
        const double s = double(speech(i).size()) / kiv::demo::kSampleRate;
        EXPECT_GT(s, 0.5) << phrase(i);
        EXPECT_LT(s, 5.0) << phrase(i);
    }
}

TEST_F(RecognitionServerTest, SentencesComeBackAsExactTranscriptsWithPartialsFirst) {
    RecognitionServer server;
    start(server);
    const Endpoint endpoint = http_endpoint(server);
    size_t errors = 0, words = 0, exact = 0;
    const size_t count = kiv::demo::example_phrases().size();
    ASSERT_GE(count, 10u);
    for (size_t i = 0; i < count; ++i) {
        const Outcome o = run_session(endpoint, "sentence-" + std::to_string(i), speech(i));
        ASSERT_EQ(o.upload.code, CURLE_OK);
        EXPECT_EQ(o.upload.status, 200) << o.upload.body;
        EXPECT_EQ(json_string(o.upload.body, "text"), o.final_text());
        EXPECT_EQ(o.results.status, 200);
        // Partials while the audio arrives, then exactly one final, last.
        EXPECT_GE(o.partials(), 1u) << o.results.body;
        EXPECT_EQ(o.partials() + 1, o.events.size()) << o.results.body;
        size_t n = 0;
        errors += word_errors(phrase(i), o.final_text(), &n);
        words += n;
        exact += o.final_text() == phrase(i);
        EXPECT_EQ(o.final_text(), phrase(i));
    }
    const double accuracy = 1.0 - double(errors) / double(words);
    const auto stats = server.stats();
    std::printf(
        "[ report ] %zu/%zu sentences exact, word accuracy %.1f%% (%zu words); decoding "
        "%.1fx real time (%llu ms audio in %.0f ms)\n",
        exact, count, 100 * accuracy, words,
        double(stats.audio_ms) * 1000.0 / double(std::max<uint64_t>(1, stats.decode_us)),
        static_cast<unsigned long long>(stats.audio_ms), stats.decode_us / 1000.0);
    EXPECT_GE(exact, 10u);
    EXPECT_GE(accuracy, 0.95);
    EXPECT_TRUE(server.wait_for_session_count(0, seconds(10)));
}

TEST_F(RecognitionServerTest, ResultsOpenedFirstWaitForTheAudio) {
    RecognitionServer server;
    start(server);
    const Endpoint endpoint = http_endpoint(server);
    auto down = std::async(std::launch::async, [&] { return results(endpoint, "early"); });
    // The results request has made the session before any audio is sent.
    ASSERT_TRUE(server.wait_for_session_count(1, seconds(10)));
    const Reply up = upload_pcm(endpoint, "early", speech(0));
    EXPECT_EQ(up.status, 200) << up.body;
    ASSERT_EQ(down.wait_for(seconds(60)), std::future_status::ready);
    const auto events = lines_of(down.get().body);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(json_string(events.back(), "type"), "final");
    EXPECT_EQ(json_string(events.back(), "text"), phrase(0));
    EXPECT_TRUE(server.wait_for_session_count(0, seconds(10)));
}

TEST_F(RecognitionServerTest, AudioSentFirstIsKeptForTheResultsStream) {
    RecognitionServer server;
    start(server);
    const Endpoint endpoint = http_endpoint(server);
    const Reply up = upload_pcm(endpoint, "late", speech(1));
    ASSERT_EQ(up.status, 200) << up.body;
    EXPECT_EQ(json_string(up.body, "text"), phrase(1));
    EXPECT_EQ(json_string(up.body, "session"), "late");
    EXPECT_EQ(server.session_count(), 1u);
    const Reply down = results(endpoint, "late");
    const auto events = lines_of(down.body);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(json_string(events.front(), "type"), "partial");  // buffered, not dropped
    EXPECT_EQ(json_string(events.back(), "text"), phrase(1));
    EXPECT_TRUE(server.wait_for_session_count(0, seconds(10)));
    // A finished session is not started again.
    const Reply again = results(endpoint, "late");
    EXPECT_EQ(again.status, 410) << again.body;
    EXPECT_EQ(upload_pcm(endpoint, "late", speech(1)).status, 410);
}

TEST_F(RecognitionServerTest, ExpectContinueIsAnsweredBeforeTheBody) {
    RecognitionServer server;
    start(server);
    UploadPlan plan;
    plan.frames = gzip_frames(speech(3));
    plan.expect_100 = true;
    const Reply up = upload(http_endpoint(server), "expect", std::move(plan));
    EXPECT_EQ(up.status, 200) << up.body;
    ASSERT_FALSE(up.head_lines.empty());
    EXPECT_EQ(up.head_lines.front().compare(0, 12, "HTTP/1.1 100"), 0) << up.head_lines.front();
}

TEST_F(RecognitionServerTest, HealthGrammarAndUnknownPaths) {
    RecognitionServer server;
    start(server);
    const Endpoint endpoint = http_endpoint(server);
    const Reply health = get(endpoint, "/v1/health");
    EXPECT_EQ(health.status, 200);
    EXPECT_EQ(json_string(health.body, "status"), "ok");
    const Reply grammar = get(endpoint, "/v1/grammar");
    EXPECT_EQ(grammar.status, 200);
    EXPECT_NE(grammar.body.find("set a timer for five minutes"), std::string::npos);
    EXPECT_NE(grammar.body.find("#JSGF"), std::string::npos);
    EXPECT_EQ(get(endpoint, "/v1/nothing").status, 404);
    EXPECT_EQ(get(endpoint, "/v1/sessions/a/audio").status, 405);
    EXPECT_EQ(upload_raw(endpoint, "bad%20id", kiv::demo::gzip("xx")).status, 400);
    EXPECT_EQ(upload_raw(endpoint, std::string(129, 'a'), kiv::demo::gzip("xx")).status, 400);
}

TEST_F(RecognitionServerTest, BadBodiesGetJsonErrorsAndLeaveOtherSessionsAlone) {
    RecognitionServer server;
    start(server);
    const Endpoint endpoint = http_endpoint(server);
    // Garbage instead of gzip, with a listener waiting for the session.
    auto listener = std::async(std::launch::async, [&] { return results(endpoint, "junk"); });
    ASSERT_TRUE(server.wait_for_session_count(1, seconds(10)));
    const Reply junk = upload_raw(endpoint, "junk", std::string(5000, 'j'));
    EXPECT_EQ(junk.status, 400);
    EXPECT_NE(json_string(junk.body, "error").find("invalid gzip"), std::string::npos) << junk.body;
    // The listener hears of it too, as the session's last event.
    const auto events = lines_of(listener.get().body);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(json_string(events.back(), "type"), "error");
    EXPECT_TRUE(server.wait_for_session_count(0, seconds(10)));

    // A good session runs alongside the other bad requests.
    auto good =
        std::async(std::launch::async, [&] { return run_session(endpoint, "good", speech(2)); });
    const std::string whole = kiv::demo::gzip(pcm_bytes(speech(0).data(), speech(0).size()));
    const Reply cut = upload_raw(endpoint, "cut", whole.substr(0, whole.size() / 2));
    EXPECT_EQ(cut.status, 400);
    EXPECT_NE(json_string(cut.body, "error").find("truncated"), std::string::npos) << cut.body;

    EXPECT_EQ(upload_raw(endpoint, "empty", "").status, 400);

    // Not compressed: refused before the body is read.
    Reply plain;
    {
        Easy easy(endpoint, "/v1/sessions/plain/audio", &plain);
        curl_easy_setopt(easy.handle, CURLOPT_POSTFIELDS, "raw pcm");
        easy.perform(&plain);
    }
    EXPECT_EQ(plain.status, 415);

    const Outcome o = good.get();
    EXPECT_EQ(o.upload.status, 200);
    EXPECT_EQ(o.final_text(), phrase(2));
    EXPECT_TRUE(server.wait_for_session_count(0, seconds(10)));
}

TEST_F(RecognitionServerTest, SecondUploadOrResultsStreamForALiveSessionIsAConflict) {
    RecognitionServer server;
    start(server);
    const Endpoint endpoint = http_endpoint(server);
    Gate gate;
    UploadPlan plan;
    plan.frames = gzip_frames(speech(4));
    plan.gate_at = plan.frames.size() * 2 / 3;
    plan.gate = &gate;
    Gate decoding;  // the listener has heard a partial: the first upload is in the server
    auto listener = std::async(std::launch::async, [&] {
        bool told = false;
        return results(endpoint, "busy", [&](const std::string& so_far) {
            if (!told && so_far.find("partial") != std::string::npos) {
                told = true;
                decoding.arrive_and_wait(milliseconds(0));
            }
        });
    });
    ASSERT_TRUE(server.wait_for_session_count(1, seconds(10)));
    auto first = std::async(std::launch::async, [&] { return upload(endpoint, "busy", plan); });
    ASSERT_TRUE(decoding.wait_arrived(seconds(20)));
    ASSERT_TRUE(gate.wait_arrived(seconds(20)));  // and is held mid-body

    const Reply second = upload_pcm(endpoint, "busy", speech(4));
    EXPECT_EQ(second.status, 409);
    EXPECT_NE(second.body.find("already"), std::string::npos) << second.body;
    const Reply extra = results(endpoint, "busy");
    EXPECT_EQ(extra.status, 409);
    EXPECT_NE(extra.body.find("already"), std::string::npos) << extra.body;

    gate.release();
    const Reply up = first.get();
    EXPECT_EQ(up.status, 200) << up.body;
    EXPECT_EQ(json_string(up.body, "text"), phrase(4));
    const auto events = lines_of(listener.get().body);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(json_string(events.back(), "text"), phrase(4));
}

TEST_F(RecognitionServerTest, ClientDisconnectingMidStreamEndsItsSession) {
    RecognitionServer server;
    start(server);
    const Endpoint endpoint = http_endpoint(server);

    // With a listener: it gets an error event and its stream ends.
    auto listener = std::async(std::launch::async, [&] { return results(endpoint, "gone"); });
    ASSERT_TRUE(server.wait_for_session_count(1, seconds(10)));
    UploadPlan plan;
    plan.frames = gzip_frames(speech(5));
    plan.abort_at = 10;
    const Reply aborted = upload(endpoint, "gone", std::move(plan));
    EXPECT_EQ(aborted.code, CURLE_ABORTED_BY_CALLBACK);
    ASSERT_EQ(listener.wait_for(seconds(30)), std::future_status::ready);
    const auto events = lines_of(listener.get().body);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(json_string(events.back(), "type"), "error");
    EXPECT_NE(json_string(events.back(), "message").find("disconnect"), std::string::npos);
    EXPECT_TRUE(server.wait_for_session_count(0, seconds(10)));

    // Without one: the session is removed at once.
    UploadPlan alone;
    alone.frames = gzip_frames(speech(5));
    alone.abort_at = 10;
    EXPECT_EQ(upload(endpoint, "gone-alone", std::move(alone)).code, CURLE_ABORTED_BY_CALLBACK);
    EXPECT_TRUE(server.wait_for_session_count(0, seconds(10)));

    // A results client that hangs up while nothing is happening is let go, although no event
    // was ever written to it: the session takes a new listener (one the server still thought
    // attached would give 409 here), and its upload goes on.
    const Reply cut = results(endpoint, "deaf", nullptr, 300);
    EXPECT_EQ(cut.code, CURLE_OPERATION_TIMEDOUT);
    auto listen_until_taken = [&](long timeout_ms) {
        const auto deadline = std::chrono::steady_clock::now() + seconds(10);
        Reply r;
        do {
            r = results(endpoint, "deaf", nullptr, timeout_ms);
        } while (r.status == 409 && std::chrono::steady_clock::now() < deadline);
        return r;
    };
    const Reply second = listen_until_taken(1000);  // taken, then left while waiting again
    EXPECT_NE(second.status, 409) << second.body;
    EXPECT_EQ(second.code, CURLE_OPERATION_TIMEDOUT);
    auto relisten = std::async(std::launch::async, [&] { return listen_until_taken(60000); });
    const Reply up = upload_pcm(endpoint, "deaf", speech(6));
    EXPECT_EQ(up.status, 200);
    EXPECT_EQ(json_string(up.body, "text"), phrase(6));
    const Reply again = relisten.get();
    EXPECT_EQ(again.status, 200) << again.body;
    const auto relisten_events = lines_of(again.body);
    ASSERT_FALSE(relisten_events.empty());
    EXPECT_EQ(json_string(relisten_events.back(), "text"), phrase(6));
}

TEST_F(RecognitionServerTest, PartialsArriveWhileTheUploadIsStillOpen) {
    RecognitionServer server;
    start(server);
    const Endpoint endpoint = http_endpoint(server);
    Gate heard;  // the listener has a partial hypothesis
    auto listener = std::async(std::launch::async, [&] {
        bool told = false;
        return results(endpoint, "live", [&](const std::string& so_far) {
            if (!told && so_far.find("\"partial\"") != std::string::npos) {
                told = true;
                heard.arrive_and_wait(milliseconds(0));
            }
        });
    });
    ASSERT_TRUE(server.wait_for_session_count(1, seconds(10)));
    // The upload holds its last frames back until the listener has heard something.
    Gate held;
    UploadPlan plan;
    plan.frames = gzip_frames(speech(0));
    plan.gate_at = plan.frames.size() - 3;
    plan.gate = &held;
    auto up = std::async(std::launch::async, [&] { return upload(endpoint, "live", plan); });
    ASSERT_TRUE(held.wait_arrived(seconds(20)));
    EXPECT_TRUE(heard.wait_arrived(seconds(20))) << "no partial result before the audio ended";
    held.release();
    EXPECT_EQ(up.get().status, 200);
    const auto events = lines_of(listener.get().body);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(json_string(events.back(), "text"), phrase(0));
}

TEST_F(RecognitionServerTest, IdleSessionsAreEnded) {
    ServerOptions options;
    options.idle_timeout = milliseconds(500);
    RecognitionServer server(options);
    start(server);
    const Endpoint endpoint = http_endpoint(server);

    // A listener whose audio never comes.
    const Reply waited = results(endpoint, "never");
    const auto events = lines_of(waited.body);
    ASSERT_EQ(events.size(), 1u) << waited.body;
    EXPECT_EQ(json_string(events[0], "type"), "error");
    EXPECT_NE(events[0].find("408"), std::string::npos) << events[0];
    EXPECT_TRUE(server.wait_for_session_count(0, seconds(10)));

    // An upload that stalls mid-body, with a listener.
    Gate gate;
    UploadPlan plan;
    plan.frames = gzip_frames(speech(7));
    plan.gate_at = 5;
    plan.gate = &gate;
    auto listener = std::async(std::launch::async, [&] { return results(endpoint, "stall"); });
    ASSERT_TRUE(server.wait_for_session_count(1, seconds(10)));
    auto stalled = std::async(std::launch::async, [&] { return upload(endpoint, "stall", plan); });
    ASSERT_EQ(listener.wait_for(seconds(30)), std::future_status::ready);
    const auto stall_events = lines_of(listener.get().body);
    ASSERT_FALSE(stall_events.empty());
    EXPECT_EQ(json_string(stall_events.back(), "type"), "error");
    EXPECT_TRUE(server.wait_for_session_count(0, seconds(10)));
    gate.release();
    const Reply up = stalled.get();
    EXPECT_NE(up.status, 200) << up.body;  // cut off (timed out) or refused (408/410)

    // An upload nobody collects.
    ASSERT_EQ(upload_pcm(endpoint, "uncollected", speech(8)).status, 200);
    EXPECT_TRUE(server.wait_for_session_count(0, seconds(10)));
}

TEST_F(RecognitionServerTest, TwentyConcurrentSessionsEachGetTheirOwnTranscript) {
    RecognitionServer server;
    start(server);
    const Endpoint endpoint = http_endpoint(server);
    constexpr size_t kSessions = 20;
    const auto began = std::chrono::steady_clock::now();
    std::vector<std::future<Outcome>> running;
    for (size_t i = 0; i < kSessions; ++i) {
        running.push_back(std::async(std::launch::async, [&, i] {
            return run_session(endpoint, "many-" + std::to_string(i), speech(i));
        }));
    }
    size_t exact = 0;
    for (size_t i = 0; i < kSessions; ++i) {
        ASSERT_EQ(running[i].wait_for(seconds(100)), std::future_status::ready);
        const Outcome o = running[i].get();
        EXPECT_EQ(o.upload.status, 200) << i << ": " << o.upload.body;
        EXPECT_EQ(o.final_text(), phrase(i)) << "session " << i;
        exact += o.final_text() == phrase(i);
    }
    const double wall_ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began).count();
    const auto stats = server.stats();
    std::printf(
        "[ report ] %zu/%zu concurrent sessions exact; %llu ms of audio in %.0f ms "
        "(%.0fx real time in total)\n",
        exact, kSessions, static_cast<unsigned long long>(stats.audio_ms), wall_ms,
        double(stats.audio_ms) / wall_ms);
    EXPECT_TRUE(server.wait_for_session_count(0, seconds(10)));
}

TEST_F(RecognitionServerTest, HttpsSessionWithSelfSignedCertificate) {
    const kiv::test::TlsCert cert = kiv::test::make_self_signed_cert("asr.demo.test");
    RecognitionServer server;
    ASSERT_TRUE(server.start("127.0.0.1", 0, cert.cert_pem, cert.key_pem)) << server.last_error();
    EXPECT_TRUE(server.tls());
    const Endpoint endpoint{"https://127.0.0.1:" + std::to_string(server.port()), cert.cert_pem};
    const Outcome o = run_session(endpoint, "secure", speech(9));
    EXPECT_EQ(o.upload.code, CURLE_OK);
    EXPECT_EQ(o.final_text(), phrase(9));
    // Plain HTTP to an HTTPS server gets no answer, not a crash.
    EXPECT_NE(get(http_endpoint(server), "/v1/health").status, 200);
    EXPECT_EQ(get(endpoint, "/v1/health").status, 200);
}

TEST_F(RecognitionServerTest, StartFailuresAreReportedAndStopNeverWaitsForClients) {
    RecognitionServer server;
    EXPECT_FALSE(server.start("not-an-address", 0));
    EXPECT_NE(server.last_error().find("not-an-address"), std::string::npos);
    EXPECT_FALSE(server.start("127.0.0.1", 0, "cert only", ""));
    ServerOptions broken;
    broken.model.acoustic_model = "/nonexistent/model";
    RecognitionServer no_model(broken);
    EXPECT_FALSE(no_model.start("127.0.0.1", 0));
    EXPECT_NE(no_model.last_error().find("/nonexistent/model"), std::string::npos);

    start(server);
    EXPECT_FALSE(server.start("127.0.0.1", 0));  // already running
    RecognitionServer rival;
    EXPECT_FALSE(rival.start("127.0.0.1", server.port()));  // port taken

    // A listener waiting for audio, and an upload stalled mid-body.
    const Endpoint endpoint = http_endpoint(server);
    auto waiting = std::async(std::launch::async, [&] { return results(endpoint, "wait"); });
    Gate gate;
    UploadPlan plan;
    plan.frames = gzip_frames(speech(10));
    plan.gate_at = 3;
    plan.gate = &gate;
    auto stalled = std::async(std::launch::async, [&] { return upload(endpoint, "stop", plan); });
    ASSERT_TRUE(gate.wait_arrived(seconds(20)));
    ASSERT_TRUE(server.wait_for_session_count(2, seconds(10)));

    auto stopping = std::async(std::launch::async, [&] { server.stop(); });
    ASSERT_EQ(stopping.wait_for(seconds(30)), std::future_status::ready);
    EXPECT_FALSE(server.running());
    EXPECT_EQ(server.port(), 0);
    ASSERT_EQ(waiting.wait_for(seconds(30)), std::future_status::ready);
    const auto events = lines_of(waiting.get().body);
    if (!events.empty()) {
        EXPECT_EQ(json_string(events.back(), "message"), "server stopping");
    }
    gate.release();
    EXPECT_NE(stalled.get().status, 200);

    // And it starts again.
    start(server);
    EXPECT_EQ(get(http_endpoint(server), "/v1/health").status, 200);
}

}  // namespace

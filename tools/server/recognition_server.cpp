#include "tools/server/recognition_server.h"

#include <arpa/inet.h>
#include <malloc.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>
#include <vector>

#include "tools/server/command_grammar.h"
#include "tools/server/connection_gate.h"
#include "tools/server/gzip_stream.h"
#include "tools/server/http_request.h"
#include "tools/server/speech.h"

namespace kiv {
namespace demo {

namespace {

using Clock = std::chrono::steady_clock;

// How often a waiting results stream looks at its client's socket and the server's state.
constexpr auto kReaderSlice = std::chrono::milliseconds(200);
// Samples decoded between two looks at the hypothesis (128 ms): partial results keep coming
// even when a fast client sends big pieces.
constexpr size_t kDecodeSlice = 2048;
// After a body has been rejected, this much more is read and dropped before the connection is
// simply closed.
constexpr uint64_t kDiscardLimit = 1 << 20;
// Finished session ids remembered, to answer 410 rather than start a new session.
constexpr size_t kFinishedMemory = 4096;
// Freed decoder memory goes back to the system at most this often.
constexpr auto kTrimPeriod = std::chrono::seconds(1);

// Insertion-ordered, so the wire bytes read as the fields are listed here.
using Json = nlohmann::ordered_json;

// One JSON object and its newline. Text that is not UTF-8 (decoders and clients are not
// trusted to give any) becomes U+FFFD instead of failing.
std::string json_line(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string final_event(const std::string& text) {
    return json_line(Json{{"type", "final"}, {"text", text}});
}

MHD_Result queue_json(MHD_Connection* connection, unsigned status, const std::string& body) {
    MHD_Response* response = MHD_create_response_from_buffer(
        body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
    if (!response) {
        return MHD_NO;
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "application/json");
    // One request per connection: every request head then passes the gate and its deadline.
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

// True once the client has closed its side of a connection whose request is fully read.
bool peer_gone(MHD_Connection* connection) {
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (!info) {
        return false;
    }
    pollfd p{};
    p.fd = info->connect_fd;
    p.events = POLLRDHUP;
    if (poll(&p, 1, 0) <= 0) {
        return false;
    }
    return (p.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0;
}

struct Event {
    std::string line;  // one JSON object and its newline; empty for a bare end of stream
    bool terminal;
};

struct Session {
    explicit Session(std::string session_id) : id(std::move(session_id)) {}
    const std::string id;

    std::mutex m;
    std::condition_variable cv;
    std::deque<Event> events;
    bool upload_attached = false;
    bool reader_attached = false;
    bool terminal_queued = false;  // the terminal event is in (or through) the queue
    bool closed = false;           // idle or server stopping: uploads stop decoding
    Clock::time_point last_activity = Clock::now();
};

}  // namespace

struct RecognitionServer::Impl {
    explicit Impl(ServerOptions o) : options(std::move(o)) {}

    // A decoder and its place among the live ones, given back when this goes.
    struct DecoderLease {
        Impl* impl = nullptr;
        std::unique_ptr<Decoder> decoder;
        DecoderLease() = default;
        DecoderLease(const DecoderLease&) = delete;
        DecoderLease& operator=(const DecoderLease&) = delete;
        ~DecoderLease() { reset(); }
        void reset() {
            if (impl) {
                decoder.reset();
                impl->release_decoder();
                impl = nullptr;
            }
        }
    };

    // Per-connection state, in libmicrohttpd's con_cls.
    struct Request {
        enum Kind { kOther, kAudio, kResults } kind = kOther;
        std::shared_ptr<Session> session;
        // kAudio
        DecoderLease lease;  // taken when the first samples arrive
        GzipReader gzip;
        uint64_t compressed_bytes = 0;
        uint64_t samples_in = 0;
        int odd_byte = -1;  // a sample split across two pieces
        std::vector<int16_t> samples;
        std::string last_partial;
        bool heard_speech = false;        // in the utterance now open
        std::vector<std::string> finals;  // one per utterance ended so far
        unsigned error_status = 0;        // non-zero: body rejected, the rest is dropped
        std::string error_message;
        uint64_t discarded = 0;
        bool upload_done = false;  // the whole body was read and answered
        // kResults
        uint64_t ignored_body = 0;
        bool stream_queued = false;  // ownership of the reader attachment passed to the stream
    };

    // State of one results stream, owned by its libmicrohttpd response.
    struct Stream {
        Impl* impl;
        std::shared_ptr<Session> session;
        MHD_Connection* connection;
        std::string pending;
        bool delivered_terminal = false;
    };

    const ServerOptions options;

    mutable std::mutex lifecycle;  // start/stop and the fields below it
    MHD_Daemon* daemon = nullptr;
    std::unique_ptr<ConnectionGate> gate;
    uint16_t bound_port = 0;
    bool use_tls = false;
    std::string last_error;
    std::string cert, key;
    std::unique_ptr<DecoderFiles> files;
    std::thread janitor;

    std::atomic<bool> stopping{false};

    mutable std::mutex table_m;
    mutable std::condition_variable table_cv;  // the session count changed
    std::condition_variable janitor_cv;        // stop() wakes the janitor
    std::map<std::string, std::shared_ptr<Session>> sessions;
    std::map<std::string, std::string> finished;  // id -> why it ended
    std::deque<std::string> finished_order;

    mutable std::mutex decoders_m;
    std::condition_variable decoders_cv;  // a place among the live decoders came free
    size_t decoders_live = 0;
    size_t decoders_peak = 0;
    bool decoders_released = false;  // since the janitor last gave memory back

    std::atomic<uint64_t> sessions_created{0};
    std::atomic<uint64_t> uploads_completed{0};
    std::atomic<uint64_t> audio_ms{0};
    std::atomic<uint64_t> decode_us{0};
    std::atomic<uint64_t> decoders_refused{0};

    // --- session table ---

    // Finds or makes the session for a request and attaches the request to it. On refusal
    // returns null with an HTTP status and message.
    std::shared_ptr<Session> claim(const std::string& id, Request::Kind kind, unsigned* status,
                                   std::string* message) {
        std::lock_guard<std::mutex> lock(table_m);
        if (stopping) {
            *status = MHD_HTTP_SERVICE_UNAVAILABLE;
            *message = "server stopping";
            return nullptr;
        }
        auto done = finished.find(id);
        if (done != finished.end()) {
            *status = MHD_HTTP_GONE;
            *message = "session finished: " + done->second;
            return nullptr;
        }
        std::shared_ptr<Session>& slot = sessions[id];
        if (!slot) {
            if (sessions.size() > options.max_sessions) {
                sessions.erase(id);
                *status = MHD_HTTP_SERVICE_UNAVAILABLE;
                *message = "too many sessions (limit " + std::to_string(options.max_sessions) + ")";
                return nullptr;
            }
            slot = std::make_shared<Session>(id);
            ++sessions_created;
            table_cv.notify_all();
        }
        std::shared_ptr<Session> session = slot;
        std::lock_guard<std::mutex> session_lock(session->m);
        bool& attached =
            kind == Request::kAudio ? session->upload_attached : session->reader_attached;
        if (attached) {
            *status = MHD_HTTP_CONFLICT;
            *message = kind == Request::kAudio
                           ? "this session already has an upload"
                           : "a results stream is already open for this session";
            return nullptr;
        }
        attached = true;
        session->last_activity = Clock::now();
        return session;
    }

    // Removes a session from the table (if it is still there) and remembers why it ended.
    void finish_session(const std::shared_ptr<Session>& session, const std::string& reason) {
        std::lock_guard<std::mutex> lock(table_m);
        auto it = sessions.find(session->id);
        if (it == sessions.end() || it->second != session) {
            return;
        }
        sessions.erase(it);
        if (finished.emplace(session->id, reason).second) {
            finished_order.push_back(session->id);
            if (finished_order.size() > kFinishedMemory) {
                finished.erase(finished_order.front());
                finished_order.pop_front();
            }
        }
        table_cv.notify_all();
    }

    // Queues an event; a terminal event closes the queue to everything after it. Returns
    // whether a results stream is attached.
    static bool push_event(Session& session, std::string line, bool terminal) {
        std::lock_guard<std::mutex> lock(session.m);
        if (!session.terminal_queued) {
            session.events.push_back(Event{std::move(line), terminal});
            session.terminal_queued = terminal;
            session.last_activity = Clock::now();
            session.cv.notify_all();
        }
        return session.reader_attached;
    }

    static bool has_reader(Session& session) {
        std::lock_guard<std::mutex> lock(session.m);
        return session.reader_attached;
    }

    static std::string error_event(unsigned status, const std::string& message) {
        return json_line(Json{{"type", "error"}, {"status", status}, {"message", message}});
    }

    // The upload side ended badly: tell the listener, or end the session when nobody listens.
    void fail_upload(Request& request, unsigned status, const std::string& message) {
        if (!push_event(*request.session, error_event(status, message), true)) {
            finish_session(request.session, message);
        }
    }

    void janitor_loop() {
        const auto idle = options.idle_timeout;
        const auto period = std::clamp<std::chrono::milliseconds>(
            idle / 4, std::chrono::milliseconds(10), std::chrono::milliseconds(1000));
        Clock::time_point last_trim;
        std::unique_lock<std::mutex> lock(table_m);
        while (!stopping) {
            janitor_cv.wait_for(lock, period);
            if (stopping) {
                break;
            }
            std::vector<std::shared_ptr<Session>> all;
            for (auto& entry : sessions) {
                all.push_back(entry.second);
            }
            lock.unlock();
            const auto now = Clock::now();
            const std::string reason =
                "session idle for more than " + std::to_string(idle.count()) + " ms";
            for (auto& session : all) {
                bool end_now = false;
                {
                    std::lock_guard<std::mutex> session_lock(session->m);
                    if (session->closed || now - session->last_activity <= idle) {
                        continue;
                    }
                    session->closed = true;
                    if (!session->terminal_queued) {
                        session->events.push_back(
                            Event{error_event(MHD_HTTP_REQUEST_TIMEOUT, reason), true});
                        session->terminal_queued = true;
                    }
                    session->cv.notify_all();
                    end_now = !session->reader_attached;
                }
                if (end_now) {
                    finish_session(session, reason);
                }
            }
            if (now - last_trim >= kTrimPeriod && take_released()) {
                give_memory_back();
                last_trim = now;
            }
            lock.lock();
        }
    }

    // --- decoders ---

    // Waits for a place among the live decoders, at most options.decoder_wait; false when
    // none came free in time or the server is stopping.
    bool reserve_decoder() {
        std::unique_lock<std::mutex> lock(decoders_m);
        const bool got = decoders_cv.wait_for(lock, options.decoder_wait, [this] {
            return stopping || decoders_live < options.max_decoders;
        });
        if (!got || stopping) {
            return false;
        }
        decoders_peak = std::max(decoders_peak, ++decoders_live);
        return true;
    }

    void release_decoder() {
        std::lock_guard<std::mutex> lock(decoders_m);
        --decoders_live;
        decoders_released = true;
        decoders_cv.notify_one();
    }

    bool take_released() {
        std::lock_guard<std::mutex> lock(decoders_m);
        return std::exchange(decoders_released, false);
    }

    // A decoder leaves megabytes of free heap behind, spread over the allocator's per-thread
    // arenas; without this they stay resident long after the sessions that used them.
    static void give_memory_back() {
#ifdef __GLIBC__
        malloc_trim(0);
#endif
    }

    // Gives the upload its decoder; false (with the body rejected) when it cannot have one.
    bool start_decoder(Request& request) {
        if (!reserve_decoder()) {
            ++decoders_refused;
            reject_body(request, MHD_HTTP_SERVICE_UNAVAILABLE,
                        stopping ? "server stopping"
                                 : "all " + std::to_string(options.max_decoders) +
                                       " decoders are busy: try again later");
            return false;
        }
        request.lease.impl = this;
        std::string error;
        request.lease.decoder = Decoder::create(*files, &error);
        if (!request.lease.decoder) {
            request.lease.reset();
            reject_body(request, MHD_HTTP_INTERNAL_SERVER_ERROR, error);
            return false;
        }
        return true;
    }

    // --- audio upload ---

    void reject_body(Request& request, unsigned status, const std::string& message) {
        if (request.error_status != 0) {
            return;
        }
        request.error_status = status;
        request.error_message = message;
        // The upload is answered when its body ends; the listener hears it now.
        push_event(*request.session, error_event(status, message), true);
    }

    // Decodes inflated PCM bytes; false when the body has to be rejected.
    bool decode_pcm(Request& request, const uint8_t* data, size_t size) {
        std::vector<int16_t>& samples = request.samples;
        samples.clear();
        size_t i = 0;
        if (request.odd_byte >= 0 && size > 0) {
            samples.push_back(static_cast<int16_t>(request.odd_byte | data[0] << 8));
            request.odd_byte = -1;
            i = 1;
        }
        for (; i + 1 < size; i += 2) {
            samples.push_back(static_cast<int16_t>(data[i] | data[i + 1] << 8));
        }
        if (i < size) {
            request.odd_byte = data[i];
        }
        if (samples.empty()) {
            return true;
        }
        const uint64_t limit = uint64_t(options.max_audio.count()) * kSampleRate / 1000;
        if (request.samples_in + samples.size() > limit) {
            reject_body(request, MHD_HTTP_CONTENT_TOO_LARGE,
                        "audio longer than " + std::to_string(options.max_audio.count()) + " ms");
            return false;
        }
        request.samples_in += samples.size();
        if (!request.lease.decoder && !start_decoder(request)) {
            return false;
        }
        Decoder& decoder = *request.lease.decoder;
        for (size_t offset = 0; offset < samples.size(); offset += kDecodeSlice) {
            const size_t count = std::min(kDecodeSlice, samples.size() - offset);
            const auto t0 = Clock::now();
            const bool ok = decoder.process(samples.data() + offset, count);
            const bool speech = ok && decoder.in_speech();
            std::string hyp = speech ? decoder.hypothesis() : std::string();
            // The detector's pause after speech ends the utterance: its final goes out now,
            // and the audio after it is the next command.
            const bool paused = ok && !speech && request.heard_speech;
            std::string final_text = paused ? decoder.end_utterance() : std::string();
            decode_us +=
                std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t0).count();
            if (!ok) {
                reject_body(request, MHD_HTTP_INTERNAL_SERVER_ERROR, "decoder failure");
                return false;
            }
            request.heard_speech = speech;
            if (!hyp.empty() && hyp != request.last_partial) {
                request.last_partial = hyp;
                push_event(*request.session, json_line(Json{{"type", "partial"}, {"text", hyp}}),
                           false);
            }
            if (paused) {
                request.last_partial.clear();
                if (!final_text.empty()) {
                    request.finals.push_back(final_text);
                    push_event(*request.session, final_event(final_text), false);
                }
            }
        }
        return true;
    }

    MHD_Result audio_piece(Request& request, const char* data, size_t size) {
        request.compressed_bytes += size;
        if (request.error_status == 0) {
            std::lock_guard<std::mutex> lock(request.session->m);
            if (request.session->closed) {
                request.error_status =
                    stopping ? MHD_HTTP_SERVICE_UNAVAILABLE : MHD_HTTP_REQUEST_TIMEOUT;
                request.error_message = stopping ? "server stopping" : "session ended (idle)";
            } else {
                request.session->last_activity = Clock::now();
            }
        }
        if (request.error_status != 0) {
            request.lease.reset();  // nothing more to decode
            request.discarded += size;
            return request.discarded > kDiscardLimit ? MHD_NO : MHD_YES;
        }
        const bool ok = request.gzip.push(
            reinterpret_cast<const uint8_t*>(data), size,
            [&](const uint8_t* pcm, size_t n) { return decode_pcm(request, pcm, n); });
        if (!ok && request.error_status == 0) {
            reject_body(request, MHD_HTTP_BAD_REQUEST, request.gzip.error());
        }
        if (request.error_status != 0) {
            request.lease.reset();
        }
        return MHD_YES;
    }

    MHD_Result audio_end(MHD_Connection* connection, Request& request) {
        request.upload_done = true;
        const std::shared_ptr<Session>& session = request.session;
        if (request.error_status == 0 && !request.gzip.complete()) {
            reject_body(request, MHD_HTTP_BAD_REQUEST,
                        request.compressed_bytes == 0
                            ? "empty body: expected gzip-compressed audio"
                            : "gzip stream truncated: the body ended inside a gzip member");
        }
        if (request.error_status != 0) {
            request.lease.reset();
            if (!has_reader(*session)) {
                finish_session(session, request.error_message);  // nobody to tell
            }
            return queue_json(connection, request.error_status,
                              error_body(request.error_message, session->id));
        }
        std::string text;
        if (request.lease.decoder) {
            const auto t0 = Clock::now();
            text = request.lease.decoder->finish();
            decode_us +=
                std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t0).count();
        }
        request.lease.reset();
        const uint64_t ms = request.samples_in * 1000 / kSampleRate;
        audio_ms += ms;
        ++uploads_completed;
        // Every upload ends its results with a final, even silence (""), unless the last
        // utterance's final went out at its pause: then the stream simply ends. Kept for a
        // results stream that has yet to come (or until the idle limit).
        if (!text.empty() || request.finals.empty()) {
            push_event(*session, final_event(text), true);
        } else {
            push_event(*session, std::string(), true);
        }
        if (!text.empty()) {
            request.finals.push_back(text);
        }
        std::string all;
        for (const std::string& f : request.finals) {
            all += (all.empty() ? "" : " ") + f;
        }
        return queue_json(connection, MHD_HTTP_OK,
                          json_line(Json{{"session", session->id},
                                         {"bytes", request.compressed_bytes},
                                         {"audio_ms", ms},
                                         {"text", all},
                                         {"finals", request.finals}}));
    }

    // --- results stream ---

    // Moves the next events into the stream's buffer, waiting for them in bounded slices.
    // False when the stream has to end without its terminal event (client gone, server
    // stopping with the queue drained).
    bool next_events(Stream& stream) {
        Session& session = *stream.session;
        bool terminal = false;
        {
            std::unique_lock<std::mutex> lock(session.m);
            while (session.events.empty()) {
                if (session.closed) {
                    return false;
                }
                lock.unlock();  // no lock held while asking libmicrohttpd
                const bool gone = peer_gone(stream.connection);
                lock.lock();
                if (gone) {
                    return false;
                }
                if (session.events.empty()) {
                    session.cv.wait_for(lock, kReaderSlice);
                }
            }
            while (!session.events.empty() && !terminal) {
                Event& event = session.events.front();
                stream.pending += event.line;
                terminal = event.terminal;
                session.events.pop_front();
            }
            session.last_activity = Clock::now();
        }
        if (terminal) {
            stream.delivered_terminal = true;
            finish_session(stream.session, "results delivered");
        }
        return true;
    }

    static ssize_t stream_reader(void* cls, uint64_t, char* buf, size_t max) {
        Stream& stream = *static_cast<Stream*>(cls);
        if (stream.pending.empty()) {
            if (stream.delivered_terminal) {
                return MHD_CONTENT_READER_END_OF_STREAM;
            }
            if (!stream.impl->next_events(stream)) {
                return MHD_CONTENT_READER_END_WITH_ERROR;
            }
            if (stream.pending.empty()) {  // a bare end of stream
                return MHD_CONTENT_READER_END_OF_STREAM;
            }
        }
        const size_t n = std::min(max, stream.pending.size());
        // A body piece, not a string: nothing to terminate.
        std::memcpy(buf, stream.pending.data(), n);  // NOLINT(bugprone-not-null-terminated-result)
        stream.pending.erase(0, n);
        return static_cast<ssize_t>(n);
    }

    static void stream_free(void* cls) {
        std::unique_ptr<Stream> stream(static_cast<Stream*>(cls));
        if (!stream->delivered_terminal) {
            stream->impl->detach_reader(stream->session);
        }
    }

    // A results stream went away before its terminal event.
    void detach_reader(const std::shared_ptr<Session>& session) {
        bool end_now;
        {
            std::lock_guard<std::mutex> lock(session->m);
            session->reader_attached = false;
            // Without audio still to come, nobody could ever collect the rest.
            end_now = session->terminal_queued || session->closed;
        }
        if (end_now) {
            finish_session(session, "results stream closed");
        }
    }

    MHD_Result results_end(MHD_Connection* connection, Request& request) {
        std::unique_ptr<Stream> stream(new Stream{this, request.session, connection, "", false});
        MHD_Response* response = MHD_create_response_from_callback(
            MHD_SIZE_UNKNOWN, 4096, &stream_reader, stream.get(), &stream_free);
        if (!response) {
            return MHD_NO;  // the request-completed callback detaches the reader
        }
        static_cast<void>(stream.release());  // now owned by the response
        request.stream_queued = true;
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "application/octet-stream");
        // A results connection waits without a time limit (the stream watches idleness
        // itself), so it is not kept open for another request.
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
        const MHD_Result result = MHD_queue_response(connection, MHD_HTTP_OK, response);
        MHD_destroy_response(response);
        return result;
    }

    // --- libmicrohttpd callbacks ---

    MHD_Result route(MHD_Connection* connection, const std::string& url, const std::string& method,
                     Request& request) {
        const Route to = route_request(method, url);
        switch (to.target) {
            case Route::kRefused:
                return queue_json(connection, to.status, error_body(to.message));
            case Route::kHealth:
                return queue_json(connection, MHD_HTTP_OK,
                                  json_line(Json{{"status", "ok"}, {"sessions", session_count()}}));
            case Route::kGrammar:
                return queue_json(connection, MHD_HTTP_OK, grammar_json());
            case Route::kAudio:
            case Route::kResults:
                break;
        }
        const Request::Kind kind = to.target == Route::kAudio ? Request::kAudio : Request::kResults;
        if (kind == Request::kAudio) {
            const char* encoding = MHD_lookup_connection_value(connection, MHD_HEADER_KIND,
                                                               MHD_HTTP_HEADER_CONTENT_ENCODING);
            if (!encoding ||
                (strcasecmp(encoding, "gzip") != 0 && strcasecmp(encoding, "x-gzip") != 0)) {
                return queue_json(connection, MHD_HTTP_UNSUPPORTED_MEDIA_TYPE,
                                  error_body("audio must be gzip-compressed: send "
                                             "Content-Encoding: gzip",
                                             to.session));
            }
        }
        unsigned status = 0;
        std::string message;
        request.session = claim(to.session, kind, &status, &message);
        if (!request.session) {
            return queue_json(connection, status, error_body(message, to.session));
        }
        request.kind = kind;
        if (kind == Request::kResults) {
            // The stream waits for events itself; libmicrohttpd's idle limit would cut it.
            MHD_set_connection_option(connection, MHD_CONNECTION_OPTION_TIMEOUT, 0u);
        }
        return MHD_YES;  // body next (libmicrohttpd answers Expect: 100-continue now)
    }

    static MHD_Result on_request(void* cls, MHD_Connection* connection, const char* url,
                                 const char* method, const char*, const char* upload_data,
                                 size_t* upload_data_size, void** con_cls) {
        Impl& impl = *static_cast<Impl*>(cls);
        if (*con_cls == nullptr) {
            const MHD_ConnectionInfo* info =
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
            impl.gate->head_done(info ? info->socket_context : nullptr);
            auto* request = new Request;
            *con_cls = request;
            return impl.route(connection, url ? url : "", method ? method : "", *request);
        }
        Request& request = *static_cast<Request*>(*con_cls);
        if (*upload_data_size > 0) {
            const size_t size = *upload_data_size;
            *upload_data_size = 0;
            if (request.kind == Request::kAudio) {
                return impl.audio_piece(request, upload_data, size);
            }
            request.ignored_body += size;
            return request.ignored_body > kDiscardLimit ? MHD_NO : MHD_YES;
        }
        switch (request.kind) {
            case Request::kAudio:
                return request.upload_done ? MHD_YES : impl.audio_end(connection, request);
            case Request::kResults:
                return request.stream_queued ? MHD_YES : impl.results_end(connection, request);
            case Request::kOther:
                break;
        }
        return MHD_YES;  // a response was queued on the first call
    }

    static void on_completed(void* cls, MHD_Connection*, void** con_cls,
                             MHD_RequestTerminationCode code) {
        Impl& impl = *static_cast<Impl*>(cls);
        std::unique_ptr<Request> request(static_cast<Request*>(*con_cls));
        *con_cls = nullptr;
        if (!request || !request->session) {
            return;
        }
        if (request->kind == Request::kAudio && !request->upload_done) {
            impl.fail_upload(*request, MHD_HTTP_BAD_REQUEST,
                             code == MHD_REQUEST_TERMINATED_TIMEOUT_REACHED
                                 ? "audio upload stalled: connection timed out"
                                 : "audio upload ended early: client disconnected");
        } else if (request->kind == Request::kResults && !request->stream_queued) {
            impl.detach_reader(request->session);
        }
    }

    // The gate's accounting of the connections libmicrohttpd holds.
    static void on_connection(void* cls, MHD_Connection* connection, void** socket_context,
                              MHD_ConnectionNotificationCode code) {
        Impl& impl = *static_cast<Impl*>(cls);
        if (code == MHD_CONNECTION_NOTIFY_STARTED) {
            const MHD_ConnectionInfo* fd =
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
            const MHD_ConnectionInfo* peer =
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
            *socket_context =
                impl.gate->opened(fd ? fd->connect_fd : -1, peer ? peer->client_addr : nullptr);
        } else if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
            impl.gate->closed(*socket_context);
            *socket_context = nullptr;
        }
    }

    // --- misc ---

    size_t session_count() const {
        std::lock_guard<std::mutex> lock(table_m);
        return sessions.size();
    }

    static std::string grammar_json() {
        return json_line(Json{{"grammar", "commands"},
                              {"format", "JSGF"},
                              {"patterns", command_patterns()},
                              {"examples", example_phrases()},
                              {"jsgf", command_grammar_jsgf()}});
    }

    void close_all_sessions() {
        std::vector<std::shared_ptr<Session>> all;
        {
            std::lock_guard<std::mutex> lock(table_m);
            stopping = true;
            for (auto& entry : sessions) {
                all.push_back(entry.second);
            }
            janitor_cv.notify_all();
        }
        {
            std::lock_guard<std::mutex> lock(decoders_m);
            decoders_cv.notify_all();
        }
        for (auto& session : all) {
            std::lock_guard<std::mutex> lock(session->m);
            session->closed = true;
            if (!session->terminal_queued) {
                session->events.push_back(
                    Event{error_event(MHD_HTTP_SERVICE_UNAVAILABLE, "server stopping"), true});
                session->terminal_queued = true;
            }
            session->cv.notify_all();
        }
    }
};

RecognitionServer::RecognitionServer(ServerOptions options) : impl_(new Impl(std::move(options))) {}

RecognitionServer::~RecognitionServer() {
    stop();
}

bool RecognitionServer::start(const std::string& address, uint16_t port,
                              const std::string& cert_pem, const std::string& key_pem) {
    Impl& impl = *impl_;
    std::lock_guard<std::mutex> lock(impl.lifecycle);
    if (impl.daemon) {
        impl.last_error = "already running";
        return false;
    }
    if (cert_pem.empty() != key_pem.empty()) {
        impl.last_error = "HTTPS needs both a certificate and a key";
        return false;
    }

    sockaddr_storage storage{};
    socklen_t storage_len = 0;
    // The gate accepts; libmicrohttpd gets each connection once its request head is whole.
    unsigned flags = MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD |
                     MHD_USE_AUTO | MHD_USE_NO_LISTEN_SOCKET | MHD_USE_ITC;
    const std::string host = address == "localhost" ? "127.0.0.1" : address;
    auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        storage_len = sizeof(sockaddr_in);
    } else if (inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        storage_len = sizeof(sockaddr_in6);
        flags |= MHD_USE_IPv6;
    } else {
        impl.last_error = "not a numeric IP address: " + address;
        return false;
    }

    std::string error;
    Decoder::set_library_log(impl.options.decoder_log);
    impl.files = DecoderFiles::prepare(impl.options.model, &error);
    if (!impl.files) {
        impl.last_error = error;
        return false;
    }

    impl.use_tls = !cert_pem.empty();
    impl.cert = cert_pem;
    impl.key = key_pem;
    if (impl.use_tls) {
        flags |= MHD_USE_TLS;
    }
    GateOptions gate;
    gate.head_timeout = impl.options.head_timeout;
    gate.max_per_address = impl.options.max_connections_per_address;
    gate.max_handed = impl.options.max_sessions * 2 + 16;
    gate.check_heads = !impl.use_tls;
    impl.gate = std::make_unique<ConnectionGate>(
        gate, [&impl](int fd, const sockaddr* peer, socklen_t peer_len) {
            // On failure libmicrohttpd has closed the socket itself.
            MHD_add_connection(impl.daemon, fd, peer, peer_len);
        });
    if (!impl.gate->listen(reinterpret_cast<sockaddr*>(&storage), storage_len, &error)) {
        impl.last_error = "cannot listen on " + address + ":" + std::to_string(port) + ": " + error;
        impl.gate.reset();
        impl.files.reset();
        return false;
    }

    const auto idle_s = static_cast<unsigned>((impl.options.idle_timeout.count() + 999) / 1000);
    // Above the gate's own limit, which answers newcomers itself.
    const unsigned connection_limit = static_cast<unsigned>(gate.max_handed + 64);
    std::vector<MHD_OptionItem> options = {
        {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&Impl::on_completed), &impl},
        {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(&Impl::on_connection), &impl},
        {MHD_OPTION_CONNECTION_TIMEOUT, std::max(1u, idle_s), nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, connection_limit, nullptr},
    };
    if (impl.use_tls) {
        options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(impl.key.c_str())});
        options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char*>(impl.cert.c_str())});
    }
    options.push_back({MHD_OPTION_END, 0, nullptr});

    impl.stopping = false;
    impl.daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, &Impl::on_request, &impl,
                                   MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
    if (!impl.daemon || !impl.gate->start(&error)) {
        impl.last_error = "cannot serve on " + address + ":" + std::to_string(port) +
                          (impl.use_tls ? " (the certificate or key may be invalid)" : "");
        if (impl.daemon) {
            MHD_stop_daemon(impl.daemon);
            impl.daemon = nullptr;
        }
        impl.gate.reset();
        impl.files.reset();
        return false;
    }
    impl.bound_port = impl.gate->port();
    impl.janitor = std::thread([&impl] { impl.janitor_loop(); });
    impl.last_error.clear();
    return true;
}

void RecognitionServer::stop() {
    Impl& impl = *impl_;
    std::lock_guard<std::mutex> lock(impl.lifecycle);
    if (!impl.daemon) {
        return;
    }
    impl.close_all_sessions();
    if (impl.janitor.joinable()) {
        impl.janitor.join();
    }
    impl.gate->stop();             // hands nothing more over
    MHD_stop_daemon(impl.daemon);  // reports the connections it closes to the gate
    impl.daemon = nullptr;
    impl.bound_port = 0;
    {
        std::lock_guard<std::mutex> table_lock(impl.table_m);
        impl.sessions.clear();
        impl.finished.clear();
        impl.finished_order.clear();
        impl.table_cv.notify_all();
    }
    impl.files.reset();
    Impl::give_memory_back();
}

bool RecognitionServer::running() const {
    std::lock_guard<std::mutex> lock(impl_->lifecycle);
    return impl_->daemon != nullptr;
}

uint16_t RecognitionServer::port() const {
    std::lock_guard<std::mutex> lock(impl_->lifecycle);
    return impl_->bound_port;
}

bool RecognitionServer::tls() const {
    std::lock_guard<std::mutex> lock(impl_->lifecycle);
    return impl_->daemon != nullptr && impl_->use_tls;
}

std::string RecognitionServer::last_error() const {
    std::lock_guard<std::mutex> lock(impl_->lifecycle);
    return impl_->last_error;
}

size_t RecognitionServer::session_count() const {
    return impl_->session_count();
}

bool RecognitionServer::wait_for_session_count(size_t count,
                                               std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(impl_->table_m);
    return impl_->table_cv.wait_for(lock, timeout, [&] { return impl_->sessions.size() == count; });
}

ServerStats RecognitionServer::stats() const {
    const Impl& impl = *impl_;
    ServerStats s;
    s.sessions_created = impl.sessions_created;
    s.uploads_completed = impl.uploads_completed;
    s.audio_ms = impl.audio_ms;
    s.decode_us = impl.decode_us;
    s.decoders_refused = impl.decoders_refused;
    {
        std::lock_guard<std::mutex> lock(impl.decoders_m);
        s.decoders_live = impl.decoders_live;
        s.decoders_peak = impl.decoders_peak;
    }
    std::lock_guard<std::mutex> lock(impl.lifecycle);
    if (impl.gate) {
        const GateStats gate = impl.gate->stats();
        s.connections_accepted = gate.accepted;
        s.connections_refused = gate.refused;
        s.connections_evicted = gate.evicted;
        s.heads_timed_out = gate.timed_out;
        s.heads_malformed = gate.malformed;
    }
    return s;
}

}  // namespace demo
}  // namespace kiv

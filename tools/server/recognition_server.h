#ifndef KIV_TOOLS_SERVER_RECOGNITION_SERVER_H
#define KIV_TOOLS_SERVER_RECOGNITION_SERVER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "tools/server/recognizer.h"

namespace kiv {
namespace demo {

struct ServerOptions {
    // A session with no progress (no audio, no result delivered, nothing attached) for this long
    // is ended: its results stream gets an error event, a stalled upload connection is closed.
    // Also the time limit of an idle connection (rounded up to whole seconds).
    std::chrono::milliseconds idle_timeout{30000};
    // Longest audio one session may upload; more is refused with 413.
    std::chrono::milliseconds max_audio{5 * 60 * 1000};
    // Sessions alive at once; more are refused with 503.
    size_t max_sessions = 256;
    // From accepting a connection to the end of its request head, however slowly the head
    // trickles in; a late one is answered 408 and closed.
    std::chrono::milliseconds head_timeout{10000};
    // Connections one client address may hold at once (see "Hostile clients" below).
    size_t max_connections_per_address = 64;
    // Decoders alive at once (about 8 MB each). An upload whose audio finds them all busy waits
    // up to decoder_wait for one, then is refused with 503.
    size_t max_decoders = 32;
    std::chrono::milliseconds decoder_wait{10000};
    ModelPaths model;
    // The decoder library logs a lot to stderr; it stays silent unless this is set. The setting
    // is process-wide (the library has one log), applied at start().
    bool decoder_log = false;
};

// Counters since construction, for benchmarks and reports.
struct ServerStats {
    uint64_t sessions_created = 0;
    uint64_t uploads_completed = 0;  // uploads answered 200
    uint64_t audio_ms = 0;           // audio of the uploads answered 200
    uint64_t decode_us = 0;          // wall time spent inside decoders
    size_t decoders_live = 0;        // now
    size_t decoders_peak = 0;        // most alive at once
    uint64_t decoders_refused = 0;   // uploads refused 503 after waiting for a decoder
    // Connections, counted by the gate in front of the HTTP library (while it runs or since it
    // last ran): accepted, answered 503 at once, closed while waiting for their head to make
    // room for a newcomer, answered 408 for a late head, answered 4xx/5xx for a malformed one.
    uint64_t connections_accepted = 0;
    uint64_t connections_refused = 0;
    uint64_t connections_evicted = 0;
    uint64_t heads_timed_out = 0;
    uint64_t heads_malformed = 0;
};

// An embedded speech-recognition server on libmicrohttpd: many sessions at once, each decoded by
// its own PocketSphinx decoder with the command grammar (see command_grammar.h).
//
//   POST /v1/sessions/{id}/audio    gzip-compressed (Content-Encoding: gzip) 16 kHz mono s16le
//                                   PCM, usually chunked; decoded as it arrives. Answered 200
//                                   {"session","bytes","audio_ms","text","finals"} once the
//                                   body ends: "finals" lists every utterance's final, "text"
//                                   is them joined by spaces.
//   POST /v1/sessions/{id}/results  a chunked application/octet-stream of newline-delimited
//                                   JSON events: {"type":"partial","text":..} when the
//                                   hypothesis changes during speech, {"type":"final",
//                                   "text":..} when an utterance ends, then the end. An
//                                   utterance ends at each pause the decoder's voice-activity
//                                   detector hears (about half a second of silence after
//                                   speech) and at the end of the audio, so one upload can
//                                   carry many commands; an upload that yields no final at all
//                                   (silence) still gets one, with "text":"". On failure the
//                                   last event is {"type":"error","status":N,"message":..}.
//                                   The request body is ignored.
//   GET  /v1/health                 {"status":"ok","sessions":N}
//   GET  /v1/grammar                the phrases understood (patterns, examples, JSGF text)
//
// The two session requests meet by id, in either order; ids are 1-128 characters of
// [A-Za-z0-9._-]. Every error answer is JSON {"error":..}: 400 bad id, invalid or truncated
// gzip, malformed request head; 404 unknown path; 405 wrong method; 408 request head too
// slow; 409 a second upload or a second results stream for a live session; 410 a finished
// session (ids are remembered for a while); 413 audio too long; 415 an upload without
// Content-Encoding: gzip; 431 request head over 8 KiB; 501 a transfer coding other than
// chunked; 503 too many sessions, connections or busy decoders, or stopping; 505 an HTTP
// version other than 1.0 and 1.1. An error found in the middle of a body is answered when the
// body ends (libmicrohttpd cannot answer earlier), and is sent at once to the session's results
// stream. A client that disconnects ends its session (the results stream gets an error
// event); a results client that leaves early frees the session for another results stream; a
// session idle past the limit is ended. Nothing a client sends affects another session.
// Every answer closes its connection, so each request head passes the gate below.
//
// Hostile clients: a gate thread (connection_gate.h) accepts every connection and holds it,
// with no thread of its own, until its request head has arrived whole, within head_timeout of
// the accept; only then does libmicrohttpd see it. A client address holds at most
// max_connections_per_address connections; a newcomer from an address at its limit replaces
// that address's oldest connection still waiting for its head (or is refused with 503). Over
// HTTPS the head is encrypted: connections are handed over at once, under the same limits, and
// one whose head has not been read by head_timeout is shut down.
//
// Memory: a decoder is made when an upload's first samples arrive and freed when its body
// ends, at most max_decoders at once; the janitor hands freed heap back to the system.
//
// Threads: libmicrohttpd runs one thread per connection; a results stream blocks its own thread
// waiting for events (in bounded slices, watching for the client hanging up); an upload waiting
// for a decoder blocks its own. The gate thread accepts. A janitor thread ends idle sessions
// and returns memory. Locks: the session table's lock may be held while taking one session's
// lock, never the reverse; no lock is held while decoding or while calling libmicrohttpd.
//
// Cost, measured on the 2-core test machine: each decoder (PocketSphinx 0.8 cannot share a
// loaded acoustic model between decoders) takes about 12 ms to load with the cut-down
// dictionary and about 8.2 MB resident; each session also holds two connection threads. A
// decoder runs at about 60x real time on one core, so decoding is rarely what limits a
// session; 20 concurrent uploads sent as fast as possible finish at about 75x real time in
// total.
// Public methods may be called from any thread.
class RecognitionServer {
public:
    explicit RecognitionServer(ServerOptions options = ServerOptions());
    // Stops the server if it runs.
    ~RecognitionServer();
    RecognitionServer(const RecognitionServer&) = delete;
    RecognitionServer& operator=(const RecognitionServer&) = delete;

    // Listens on `address` (a numeric IPv4 or IPv6 address, or "localhost" for 127.0.0.1) and
    // `port` (0 picks a free one). With both `cert_pem` and `key_pem` (PEM text) it speaks
    // HTTPS only. Returns false, with last_error(), when the model files cannot be prepared,
    // the address is invalid, the port cannot be bound, or the server already runs.
    bool start(const std::string& address, uint16_t port, const std::string& cert_pem = "",
               const std::string& key_pem = "");
    // Ends every session first (results streams get an error event "server stopping"), then
    // stops libmicrohttpd, which closes every connection. Never blocks on a client. Idempotent.
    void stop();

    bool running() const;
    // The bound port, 0 when not running.
    uint16_t port() const;
    bool tls() const;
    std::string last_error() const;

    // Sessions alive: created by either request and not yet finished (terminal event delivered,
    // upload aborted with no listener, or idle).
    size_t session_count() const;
    // Waits, at most `timeout`, until session_count() == `count`; true if it got there.
    bool wait_for_session_count(size_t count, std::chrono::milliseconds timeout) const;
    ServerStats stats() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace demo
}  // namespace kiv

#endif

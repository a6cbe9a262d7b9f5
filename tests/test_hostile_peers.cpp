// Hostile peers: one table of misbehaving servers, each row run against the upload or the
// download (both where the misbehaviour applies), over plain HTTP and over HTTPS (host pinning on
// 127.0.0.x port 443, the certificate verified against a test CA). Every row states what the
// caller must see, and the test checks it exactly: the bytes the download pieces carry, in order;
// exactly one final delivery of the stated kind, last, or none (a 201-299 answer, a cancel); for an
// upload, what the server received of the body; and the caller's object released at the end.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "core/utility/Networking/impl_curl/asr_http_task_CURL.h"
#include "tests/streaming_fixture.h"
#include "tests/support/raw_server.h"
#include "tests/support/temp_dir.h"
#include "tests/support/tls_cert.h"

using namespace kiv::test;
using namespace kiv::Networking;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

namespace {

const char kHost[] = "asr.kiv-hostile.test";  // a name no resolver knows
const char kPath[] = "/stream";

// `payload` as chunks of at most `piece` bytes, without the last chunk.
std::string chunks(const std::string& payload, size_t piece) {
    std::string framed;
    char size[16];
    for (size_t at = 0; at < payload.size(); at += piece) {
        const size_t n = std::min(piece, payload.size() - at);
        snprintf(size, sizeof size, "%zx\r\n", n);
        framed.append(size).append(payload, at, n).append("\r\n");
    }
    return framed;
}

std::string answer(int status, const char* reason, const std::string& body,
                   const std::string& extra = "") {
    return "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\n" + extra +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

const std::string kChunkedHead = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
const std::string kLastChunk = "0\r\n\r\n";
// A body that looks like chunk framing itself, with a zero byte in it.
const char kBodyBytes[] = "first\0piece\r\n0\r\n\r\nsecond\r\n";
const std::string kBody(kBodyBytes, sizeof kBodyBytes - 1);
const std::string k64KiB = pattern(64 * 1024, 64);
const std::string kLongLine = "X-Long: " + std::string(1024 * 1024, 'h') + "\r\n";
// What every upload row sends, unless it floods: pieces smaller and larger than libcurl's buffer.
const std::string kUpload = pattern(200000, 9);
const size_t kUploadPiece = 40000;
// A flood: more than every socket buffer between the two ends can hold.
const size_t kFlood = 16 * 1024 * 1024;
const size_t kFloodPiece = 64 * 1024;
const long kQueueLimit = 1024 * 1024;

// ---------------------------------------------------------------------------------------------
// What the server does after reading the request head. A step that fails ends the script; when
// the script ends the connection is closed (over TLS with a close_notify first).

struct Step {
    enum Op {
        kContinue,  // "100 Continue", when the request asks for it
        kInterim,   // "100 Continue", asked for or not
        kReadBody,  // the whole request body (Content-Length, or chunked to its last chunk)
        kReadSome,  // `count` bytes of the upload's payload (may end inside a chunk)
        kWrite,
        kWriteBytewise,  // one send per byte (TLS: one record per byte, one send per record byte)
        kReset,          // a RST, once all written bytes are acknowledged
        kSignal,         // tell the test's client that the server got this far
        kStall,          // silence, reading, until the client goes
        kIgnore,         // silence, reading nothing, until the client goes
    } op;
    std::string bytes;
    size_t count = 0;
};

Step read_body() {
    return {Step::kReadBody, "", 0};
}
Step read_some(size_t count) {
    return {Step::kReadSome, "", count};
}
Step write(const std::string& bytes) {
    return {Step::kWrite, bytes, 0};
}
Step bytewise(const std::string& bytes) {
    return {Step::kWriteBytewise, bytes, 0};
}
const Step kContinue{Step::kContinue, "", 0};
const Step kInterim{Step::kInterim, "", 0};
const Step kReset{Step::kReset, "", 0};
const Step kSignal{Step::kSignal, "", 0};
const Step kStall{Step::kStall, "", 0};
const Step kIgnore{Step::kIgnore, "", 0};

enum Dir { kDown, kUp };

// What the test does as the client, besides starting the stream.
enum class Client {
    kPlain,           // upload: sends kUpload and the end mark; download: nothing
    kCancelOnSignal,  // upload: as kPlain, then cancel() once the server signals
    kFloodCancel,     // upload: floods (no end mark), cancel() once libcurl can send no more
    kFloodLimited,    // upload: floods past a 1 MiB _UPLOAD_QUEUE_LIMIT
};

enum class End { kNone, kStatus, kError, kTimeout };
// Upload: what the server must hold of the body.
enum class Got {
    kAll,   // all of it, ended by the last chunk
    kPart,  // a prefix, never ended: the body was abandoned
};

struct Expect {
    End end;
    int32_t status = 0;  // kStatus: the status; kError: libcurl's code (0: any failure)
    // Download: what the pieces carry, in order. Upload, kStatus: the reply in the final one.
    std::string bytes;
    Got got = Got::kAll;
};

Expect none(const std::string& pieces = "", Got got = Got::kAll) {
    return {End::kNone, 0, pieces, got};
}
Expect status(int32_t code, const std::string& bytes, Got got = Got::kAll) {
    return {End::kStatus, code, bytes, got};
}
Expect error(int32_t curl, const std::string& pieces = "", Got got = Got::kAll) {
    return {End::kError, curl, pieces, got};
}
Expect timeout(const std::string& pieces) {
    return {End::kTimeout, 0, pieces, Got::kAll};
}

struct Row {
    const char* name;
    Dir dir;
    std::vector<Step> script;
    Client client;
    Expect expect;
};

// The matrix: scenario, direction, what the server does after the request head, what the client
// does, what the caller must see. libcurl's codes: 18 partial file, 27 out of memory (its limit
// on a header line), 42 aborted by callback, 47 too many redirects, 56 receive failure; 0 where
// an upload that is cut off may fail either sending or receiving.
const std::vector<Row>& rows() {
    static const std::vector<Row> table = [] {
        const Client plain = Client::kPlain;
        const Got part = Got::kPart;
        const std::string& head = kChunkedHead;
        const std::string body = chunks(kBody, 11) + kLastChunk;
        const std::string moved = answer(302, "Found", "moved", "Location: /elsewhere\r\n");
        const std::string empty = "HTTP/1.1 204 No Content\r\n\r\n";
        // clang-format off
        return std::vector<Row>{
            {"ResetAfterHead", kDown, {read_body(), write(head), kReset}, plain, error(56)},
            {"ResetAfterHead", kUp, {kContinue, write(head), kReset}, plain, error(0, "", part)},
            {"ResetAfter64KiB", kDown, {read_body(), write(head + chunks(k64KiB, 4096)), kReset},
                plain, error(56, k64KiB)},
            {"ResetAfter64KiB", kUp, {kContinue, read_some(k64KiB.size()), kReset},
                plain, error(0, "", part)},
            {"CloseAfterHead", kDown, {read_body(), write(head)}, plain, error(18)},
            {"CloseAfterHead", kUp, {kContinue, read_body(), write(head)}, plain, error(18)},
            {"CloseMidChunk", kDown,
                {read_body(), write(head + chunks("whole", 5) + "10\r\nonly 9 of")},
                plain, error(18, "wholeonly 9 of")},
            // The client's first chunk is longer than 1000 bytes.
            {"CloseMidChunk", kUp, {kContinue, read_some(1000)}, plain, error(0, "", part)},
            {"MalformedChunkSize", kDown,
                {read_body(), write(head + chunks("valid", 5) + "zz\r\nnot hex\r\n"), kStall},
                plain, error(56, "valid")},
            {"MalformedChunkSize", kUp,
                {kContinue, read_body(), write(head + "2\r\nok\r\nzz\r\n"), kStall},
                plain, error(56)},
            {"EveryByteOnItsOwn", kDown, {read_body(), bytewise(head + body)},
                plain, status(200, kBody)},
            {"EveryByteOnItsOwn", kUp, {kContinue, read_body(), bytewise(answer(200, "OK", kBody))},
                plain, status(200, kBody)},
            {"OneMiBHeaderLine", kDown, {read_body(), write("HTTP/1.1 200 OK\r\n" + kLongLine +
                "Transfer-Encoding: chunked\r\n\r\n" + body)}, plain, error(27)},
            {"OneMiBHeaderLine", kUp, {kContinue, read_body(),
                write("HTTP/1.1 200 OK\r\n" + kLongLine + "Content-Length: 2\r\n\r\nok")},
                plain, error(27)},
            // The download never asks for 100 Continue: it gets one anyway, before its answer.
            {"ContinueLate", kDown, {read_body(), kInterim, write(head + body)},
                plain, status(200, kBody)},
            // The upload asks, and gets it once libcurl has stopped waiting and sent body bytes.
            {"ContinueLate", kUp,
                {read_some(1), kInterim, read_body(), write(answer(200, "OK", "late"))},
                plain, status(200, "late")},
            {"ContinueNever", kUp, {read_body(), write(answer(200, "OK", "never"))},
                plain, status(200, "never")},
            {"NeverReadsCancelled", kUp, {kContinue, kIgnore}, Client::kFloodCancel,
                none("", part)},
            {"NeverReadsQueueLimit", kUp, {kContinue, kIgnore}, Client::kFloodLimited,
                error(42, "", part)},
            {"Silence", kDown, {read_body(), write(head + chunks("first", 5)), kStall},
                plain, timeout("first")},
            // An upload has no inactivity limit: only the caller's cancel() ends the wait.
            {"Silence", kUp, {kContinue, read_body(), kSignal, kStall},
                Client::kCancelOnSignal, none()},
            {"Status204", kDown, {read_body(), write(empty)}, plain, none()},
            {"Status204", kUp, {kContinue, read_body(), write(empty)}, plain, none()},
            {"Status201WithBody", kDown, {read_body(), write(answer(201, "Created", kBody))},
                plain, none(kBody)},
            {"Status201WithBody", kUp,
                {kContinue, read_body(), write(answer(201, "Created", kBody))},
                plain, none()},
            {"Status404WithBody", kDown, {read_body(), write(answer(404, "Not Found", kBody))},
                plain, status(404, kBody)},
            {"Status404WithBody", kUp,
                {kContinue, read_body(), write(answer(404, "Not Found", kBody))},
                plain, status(404, kBody)},
            // Any other path answers 200 "followed": a client that follows the redirect shows it.
            // The download delivers the 3xx; the upload, whose body cannot be sent again,
            // refuses it (47: too many redirects, with none allowed).
            {"Redirect", kDown, {read_body(), write(moved)}, plain, status(302, "moved")},
            {"Redirect", kUp, {kContinue, read_body(), write(moved)}, plain, error(47)},
        };
        // clang-format on
    }();
    return table;
}

struct Param {
    size_t row;
    bool tls;
};

// What a failure (and CTest's list) names the parameter by.
void PrintTo(const Param& param, std::ostream* os) {
    const Row& row = rows()[param.row];
    *os << row.name << (row.dir == kDown ? ", download" : ", upload")
        << (param.tls ? ", HTTPS" : ", HTTP");
}

std::string param_name(const testing::TestParamInfo<Param>& info) {
    const Row& row = rows()[info.param.row];
    return std::string(row.name) + (row.dir == kDown ? "_Download" : "_Upload") +
           (info.param.tls ? "_Https" : "_Http");
}

std::vector<Param> all_params() {
    std::vector<Param> params;
    for (size_t i = 0; i < rows().size(); ++i) {
        params.push_back({i, false});
        params.push_back({i, true});
    }
    return params;
}

// The server's side of a row: runs the script, and remembers what the test checks afterwards.
class Script {
public:
    explicit Script(const Row& row) : row_(row) {}

    void run(RawConnection& c) {
        std::optional<std::string> head = c.read_head();
        if (!head) {
            return;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            heads_.push_back(*head);
            sni_ = c.sni();
        }
        if (head->compare(head->find(' ') + 1, strlen(kPath) + 1, std::string(kPath) + " ") != 0) {
            c.write_all(answer(200, "OK", "followed"));
            return;
        }
        for (const Step& step : row_.script) {
            if (!perform(c, *head, step)) {
                return;
            }
        }
    }

    bool wait_signal() {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, seconds(20), [&] { return signalled_; });
    }
    std::vector<std::string> heads() {
        std::lock_guard<std::mutex> lock(mutex_);
        return heads_;
    }
    std::string sni() {
        std::lock_guard<std::mutex> lock(mutex_);
        return sni_;
    }

private:
    bool perform(RawConnection& c, const std::string& head, const Step& step) {
        bool complete = false;
        switch (step.op) {
            case Step::kContinue:
                return !find_header(head, "Expect") || c.write_all("HTTP/1.1 100 Continue\r\n\r\n");
            case Step::kInterim:
                return c.write_all("HTTP/1.1 100 Continue\r\n\r\n");
            case Step::kReadBody:
                if (auto length = find_header(head, "Content-Length")) {
                    return c.read_exact(std::stoul(*length)).has_value();
                }
                // An upload's body comes a second after its head when no 100 Continue is sent.
                return find_header(head, "Transfer-Encoding")
                           ? c.read_chunked(SIZE_MAX, &complete, seconds(10)).has_value()
                           : true;
            case Step::kReadSome:
                return c.read_chunked(step.count, &complete, seconds(10)).has_value();
            case Step::kWrite:
                return c.write_all(step.bytes);
            case Step::kWriteBytewise:
                return c.write_bytewise(step.bytes);
            case Step::kReset:
                c.reset();
                return false;
            case Step::kSignal: {
                std::lock_guard<std::mutex> lock(mutex_);
                signalled_ = true;
                changed_.notify_all();
                return true;
            }
            case Step::kStall:
                c.wait_for_close(seconds(40));
                return false;
            case Step::kIgnore:
                c.wait_for_hangup(seconds(40));
                return false;
        }
        return false;
    }

    const Row& row_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> heads_;
    std::string sni_;
    bool signalled_ = false;
};

class HostilePeerTest : public testing::TestWithParam<Param> {};

// Waits (bounded) until libcurl has taken no upload bytes for a while: its socket is full.
// True when it is stuck.
bool wait_until_stuck(kiv_shared_ptr<kiv_http_request_maker>& task) {
    int64_t last = -1;
    int still = 0;
    for (int i = 0; i < 500 && still < 10; ++i) {
        std::this_thread::sleep_for(milliseconds(20));  // sampling a counter, bounded
        const int64_t now = task->bytes_sent();
        still = now == last && now > 0 ? still + 1 : 0;
        last = now;
    }
    return still >= 10;
}

// Sends the upload's bytes as the row's client does; returns what it sent.
std::string feed(Stream& stream, Client client, long queueLimit) {
    std::string sent;
    if (client == Client::kFloodCancel) {
        const std::string piece = pattern(kFloodPiece, 5);
        while (sent.size() < kFlood) {
            stream.send(piece, false);
            sent += piece;
        }
    } else if (client == Client::kFloodLimited) {
        // Fill the socket and the queue up to the limit, then, once libcurl is stuck, send the
        // piece the queue cannot take: the refusal comes when the reader is not running.
        const std::string piece = pattern(kFloodPiece, 5);
        auto room = [&] {
            const int64_t queued = static_cast<int64_t>(sent.size()) - stream.task()->bytes_sent();
            return queued + static_cast<int64_t>(piece.size()) <= queueLimit;
        };
        while (sent.size() < kFlood) {
            if (room()) {
                stream.send(piece, false);
                sent += piece;
            } else if (wait_until_stuck(stream.task()) && !room()) {
                break;
            }
        }
        stream.send(piece, false);
        sent += piece;
    } else {
        for (size_t at = 0; at < kUpload.size(); at += kUploadPiece) {
            stream.send(kUpload.substr(at, kUploadPiece), false);
        }
        stream.send("", true);
        sent = kUpload;
    }
    return sent;
}

TEST_P(HostilePeerTest, DeliversExactlyWhatTheRowStates) {
    const Row& row = rows()[GetParam().row];
    const bool tls = GetParam().tls;
    const Expect& expect = row.expect;
    const bool down = row.dir == kDown;

    Script script(row);
    auto handler = [&script](RawConnection& c) { script.run(c); };
    std::unique_ptr<RawServer> server;
    TempDir dir;
    if (!tls) {
        server = std::make_unique<RawServer>(handler);
    } else {
        const TlsCert ca = make_ca("kiv hostile CA");
        write_file(dir.file("ca.pem"), ca.cert_pem);
        RawServerOptions options;
        options.port = 443;
        options.tls = make_signed_cert(ca, kHost, false);
        // Any free 127.0.0.x: parallel runs must not share one.
        for (int x = 20; x < 120 && !server; ++x) {
            options.address = "127.0.0." + std::to_string(x);
            try {
                server = std::make_unique<RawServer>(handler, options);
            } catch (const std::runtime_error&) {
            }
        }
        if (!server) {
            printf("skipped: cannot bind port 443 on 127.0.0.x here\n");
            GTEST_SKIP() << "port 443 cannot be bound here";
        }
    }

    Stream stream;
    // Over TLS: connect to the address, speak to the name, verify against the test CA.
    auto request = kiv_HttpRequest::requestWithUrl(tls ? "https://" + server->address() + kPath
                                                       : server->url(kPath));
    request->_METHOD = down ? HTTP_REQUEST_METHOD_CHUNK_DOWN : HTTP_REQUEST_METHOD_CHUNK_UP;
    if (tls) {
        request->_origin_URL = std::string("https://") + kHost + kPath;
        request->_CA_FILE = dir.file("ca.pem");
    }
    if (row.client == Client::kFloodLimited) {
        request->_UPLOAD_QUEUE_LIMIT = kQueueLimit;
    }
    stream.start(request);
    const std::string sent = down ? "" : feed(stream, row.client, kQueueLimit);

    if (row.client == Client::kCancelOnSignal || row.client == Client::kFloodCancel) {
        if (row.client == Client::kCancelOnSignal) {
            ASSERT_TRUE(script.wait_signal());
        } else {
            ASSERT_TRUE(wait_until_stuck(stream.task()));
        }
        const auto cancelled = Clock::now();
        stream.task()->cancel();
        stream.task()->cancel();  // a second one does nothing more
        stream.release();
        ASSERT_TRUE(stream.wait_finished()) << "the transfer did not end after cancel()";
        const auto took =
            std::chrono::duration_cast<milliseconds>(Clock::now() - cancelled).count();
        printf("cancel() to the release of the caller's object: %lld ms\n",
               static_cast<long long>(took));
        // A functional bound, far above the aim: the stream ends, it does not wait for the peer.
        EXPECT_LT(took, 2000);
    } else {
        stream.release();
        ASSERT_TRUE(stream.wait_finished(seconds(40))) << "the stream never ended";
    }

    // Deliveries: the pieces' bytes, then at most one final delivery, last.
    const std::vector<Delivery> all = stream.deliveries();
    std::string pieces;
    size_t finals = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].final) {
            ++finals;
            EXPECT_EQ(i, all.size() - 1) << "a delivery came after the final one";
        } else {
            EXPECT_TRUE(down) << "an upload delivers no pieces";
            EXPECT_FALSE(all[i].body.empty()) << "an empty piece";
            pieces += all[i].body;
        }
    }
    EXPECT_TRUE(pieces == (down ? expect.bytes : ""))
        << "pieces carried " << pieces.size() << " bytes, expected "
        << (down ? expect.bytes.size() : 0);
    ASSERT_EQ(finals, expect.end == End::kNone ? 0u : 1u);
    if (finals == 1) {
        const Delivery& end = all.back();
        switch (expect.end) {
            case End::kStatus:
                EXPECT_EQ(end.status, expect.status);
                EXPECT_EQ(end.error, down && expect.status == 200 ? HTTP_REQUEST_HTTPS_REQ_SUC
                                                                  : HTTP_REQUEST_OK);
                EXPECT_TRUE(end.body == (down ? "" : expect.bytes)) << end.body;
                break;
            case End::kError:
                EXPECT_EQ(end.status, 0);
                EXPECT_EQ(end.error, HTTP_REQUEST_CHUNK_REQ_ERROR);
                EXPECT_NE(end.curlCode, 0);
                if (expect.status != 0) {
                    EXPECT_EQ(end.curlCode, expect.status) << end.curlError;
                }
                EXPECT_FALSE(end.curlError.empty());
                if (row.client == Client::kFloodLimited) {
                    EXPECT_NE(end.curlError.find("queue refused a piece of 65536 bytes"),
                              std::string::npos)
                        << end.curlError;
                }
                break;
            case End::kTimeout:
                EXPECT_EQ(end.status, 0);
                EXPECT_EQ(end.error, HTTP_REQUEST_TIMEOUT);
                EXPECT_EQ(end.message, "[kiv_httptask_impl] downStream timeout.");
                // Not before the limit, counted from the last piece.
                ASSERT_GE(all.size(), 2u);
                EXPECT_GE(end.at - all[all.size() - 2].at,
                          milliseconds(RESPONSE_TIME_OUT_MS - 100));
                break;
            case End::kNone:
                break;
        }
    }

    // The server's side: one request, to the host name over TLS, and of an upload's body
    // exactly what the row says. A server that never reads cannot see the client go (its FIN
    // waits behind unsent bytes): it is told to hang up.
    if (row.script.back().op == Step::kIgnore) {
        server->hang_up();
    }
    ASSERT_TRUE(server->wait_for_finished(1, seconds(20)));
    const std::vector<std::string> heads = script.heads();
    ASSERT_EQ(heads.size(), 1u) << "the client made more than one request";
    if (tls) {
        EXPECT_EQ(script.sni(), kHost);
        EXPECT_EQ(find_header(heads[0], "Host").value_or(""), kHost);
    }
    if (!down) {
        const std::string received = server->received().at(0);
        bool complete = false;
        const std::string payload =
            chunked_payload(received.substr(received.find("\r\n\r\n") + 4), &complete);
        EXPECT_TRUE(sent.compare(0, payload.size(), payload) == 0)
            << "the server received bytes that were not sent, or out of order";
        if (expect.got == Got::kAll) {
            EXPECT_TRUE(complete && payload.size() == sent.size())
                << "the server received " << payload.size() << " of " << sent.size() << " bytes, "
                << (complete ? "ended" : "not ended");
        } else {
            EXPECT_FALSE(complete) << "an abandoned body reached the server as a whole request";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Matrix, HostilePeerTest, testing::ValuesIn(all_params()), param_name);

}  // namespace

// The one-shot request against real loopback servers: what goes out on the wire, what comes
// back in the response record, and the log lines it writes.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/utility/Networking/kiv_HttpRequestMaker.h"
#include "core/utility/kiv_log.h"
#include "tests/support/http_server.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_server.h"
#include "tests/support/tls_cert.h"

namespace {

using kiv::Memory::kiv_shared_ptr;
using kiv::Networking::HTTP_REQUEST_ABORTED;
using kiv::Networking::HTTP_REQUEST_METHOD_GET;
using kiv::Networking::HTTP_REQUEST_METHOD_POST;
using kiv::Networking::HTTP_REQUEST_OK;
using kiv::Networking::kiv_http_request_maker;
using kiv::Networking::kiv_HttpRequest;
using kiv::Networking::kiv_HttpResponse;
using kiv::test::HttpServer;
using kiv::test::LogCapture;
using kiv::test::RawConnection;
using kiv::test::RawServer;
using kiv::test::ReceivedRequest;
using kiv::test::Reply;
using Ms = std::chrono::milliseconds;

const char kSource[] = "[asr_http_task_CURL.cpp:";

kiv_shared_ptr<kiv_HttpRequest> request_for(const std::string& url) {
    return kiv_HttpRequest::requestWithUrl(url);
}

void set_body(const kiv_shared_ptr<kiv_HttpRequest>& request, const std::string& body) {
    kiv_shared_ptr<unsigned char> data = kiv::Memory::make_shared_array<unsigned char>(body.size());
    memcpy(data.getPTR(), body.data(), body.size());
    request->_BODY_DATA = data;
    request->_BODY_LENGTH = static_cast<long>(body.size());
}

std::string body_of(const kiv_shared_ptr<kiv_HttpResponse>& response) {
    return std::string(response->get_response_data().getPTR(), response->get_response_len());
}

std::vector<std::string> without_time(const std::vector<std::string>& lines) {
    std::vector<std::string> result;
    for (const std::string& line : lines) {
        result.push_back(kiv::test::strip_log_time(line));
    }
    return result;
}

std::string line_at(int line_number, const std::string& rest) {
    return std::string(kSource) + std::to_string(line_number) + "]" + rest;
}

// A raw handler that reads the request (and a Content-Length body) and sends `response`.
RawServer::Handler answer_with(std::string response, bool bytewise = false) {
    return [response, bytewise](RawConnection& connection) {
        std::optional<std::string> head = connection.read_head();
        if (!head) {
            return;
        }
        if (auto length = kiv::test::find_header(*head, "Content-Length")) {
            connection.read_exact(std::stoul(*length));
        }
        if (bytewise) {
            connection.write_bytewise(response);
        } else {
            connection.write_all(response);
        }
    };
}

// A raw handler that reads the request head, sends `first` and then stays silent until the
// client goes away or the server stops.
RawServer::Handler answer_then_stall(std::string first) {
    return [first](RawConnection& connection) {
        if (connection.read_head()) {
            connection.write_all(first);
            connection.wait_for_close(Ms(20000));
        }
    };
}

// A transfer that libcurl failed: no status, no local error, no body, and one error line with
// libcurl's code.
void expect_curl_failure(const kiv_shared_ptr<kiv_HttpRequest>& request, int curl_code) {
    LogCapture log(2);
    auto response = kiv_http_request_maker::execute(request);
    ASSERT_NE(response.getPTR(), nullptr);
    EXPECT_EQ(response->get_http_status(), 0);
    EXPECT_EQ(response->get_local_request_error(), HTTP_REQUEST_OK);
    EXPECT_EQ(response->get_response_len(), 0u);
    EXPECT_EQ(
        without_time(log.finish()),
        std::vector<std::string>{"[ERROR]-[]" + line_at(129, "[ASRHttpTask::execute]") +
                                 "[curl_code=" + std::to_string(curl_code) + "] curl error!"});
}

class ExecuteTest : public ::testing::Test {
protected:
    void TearDown() override {
        kiv::LogFile::close_log_file();
        kiv::set_log_level(2);
    }
};

TEST_F(ExecuteTest, BodyLengthAloneChoosesGetOrPost) {
    HttpServer server;
    server.on("/m", [](const ReceivedRequest&) { return Reply::text("ok"); });

    auto post_without_body = request_for(server.url("/m"));
    post_without_body->_METHOD = HTTP_REQUEST_METHOD_POST;

    const std::string binary("a\0b\0\0\xff z", 8);
    auto get_with_body = request_for(server.url("/m"));
    get_with_body->_METHOD = HTTP_REQUEST_METHOD_GET;
    set_body(get_with_body, binary);

    auto negative_length = request_for(server.url("/m"));
    set_body(negative_length, "ignored");
    negative_length->_BODY_LENGTH = -5;

    auto zero_length = request_for(server.url("/m"));
    set_body(zero_length, "ignored");
    zero_length->_BODY_LENGTH = 0;

    for (const auto& request : {post_without_body, get_with_body, negative_length, zero_length}) {
        auto response = kiv_http_request_maker::execute(request);
        ASSERT_NE(response.getPTR(), nullptr);
        EXPECT_EQ(response->get_http_status(), 200);
        EXPECT_EQ(body_of(response), "ok");
    }

    std::vector<ReceivedRequest> seen = server.requests();
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0].method, "GET");
    EXPECT_EQ(seen[0].body, "");
    EXPECT_EQ(seen[1].method, "POST");
    EXPECT_EQ(seen[1].body, binary);
    EXPECT_EQ(seen[1].header("Content-Length"), "8");
    for (size_t i : {2u, 3u}) {
        EXPECT_EQ(seen[i].method, "GET") << i;
        EXPECT_EQ(seen[i].body, "") << i;
        EXPECT_FALSE(seen[i].has_header("Content-Length")) << i;
    }
}

TEST_F(ExecuteTest, HeaderLinesGoOutSortedAsNameColonValue) {
    RawServer server(answer_with("HTTP/1.1 204 No Content\r\n\r\n"));
    const std::string host = "Host: 127.0.0.1:" + std::to_string(server.port()) + "\r\n";

    // No extra lines: exactly what libcurl itself sends.
    auto plain = kiv_http_request_maker::execute(request_for(server.url("/plain")));
    ASSERT_EQ(plain->get_http_status(), 204);

    auto with_headers = request_for(server.url("/h"));
    with_headers->_HEADER_LIST["X-b"] = "2";
    with_headers->_HEADER_LIST["X-A"] = "one  two\tthree";
    with_headers->_HEADER_LIST["Accept"] = "text/x";  // replaces libcurl's own Accept line
    ASSERT_EQ(kiv_http_request_maker::execute(with_headers)->get_http_status(), 204);

    auto post = request_for(server.url("/p"));
    set_body(post, "k=v");
    post->_HEADER_LIST["Content-Type"] = "application/octet-stream";
    ASSERT_EQ(kiv_http_request_maker::execute(post)->get_http_status(), 204);

    ASSERT_TRUE(server.wait_for_finished(3, Ms(5000)));
    std::vector<std::string> wire = server.received();
    ASSERT_EQ(wire.size(), 3u);
    EXPECT_EQ(wire[0], "GET /plain HTTP/1.1\r\n" + host + "Accept: */*\r\n\r\n");
    EXPECT_EQ(wire[1], "GET /h HTTP/1.1\r\n" + host +
                           "Accept: text/x\r\nX-A: one  two\tthree\r\nX-b: 2\r\n\r\n");
    // libcurl adds Content-Length to a POST; the body follows the head byte for byte.
    EXPECT_EQ(wire[2], "POST /p HTTP/1.1\r\n" + host +
                           "Accept: */*\r\nContent-Type: application/octet-stream\r\n"
                           "Content-Length: 3\r\n\r\nk=v");
}

TEST_F(ExecuteTest, BodiesKeepEveryByte) {
    HttpServer server;
    const std::string zeros("x\0y\0\0z", 6);
    std::string big(1024 * 1024 + 7, '\0');
    for (size_t i = 0; i < big.size(); ++i) {
        big[i] = static_cast<char>((i * 31 + i / 4099) % 251);
    }
    server.on("/zeros", [&](const ReceivedRequest&) { return Reply::text(zeros); });
    server.on("/big", [&](const ReceivedRequest&) { return Reply::text(big); });
    server.on("/echo", [](const ReceivedRequest& r) { return Reply::text(r.body); });

    LogCapture log(5);
    auto response = kiv_http_request_maker::execute(request_for(server.url("/zeros")));
    EXPECT_EQ(response->get_response_len(), zeros.size());
    EXPECT_EQ(body_of(response), zeros);
    EXPECT_EQ(response->get_response_data().getPTR()[zeros.size()], '\0');
    // The log prints the body as text, so only up to its first zero byte, beside the full length.
    EXPECT_EQ(without_time(log.finish()).back(),
              "[DEBUG]-[]" + line_at(121, "[ASRHttpTask::execute]") +
                  "[curl_code=0, http_stauts=200, response_len=6] receive response: x");

    // Far more than one write of libcurl's receive buffer.
    response = kiv_http_request_maker::execute(request_for(server.url("/big")));
    EXPECT_EQ(response->get_http_status(), 200);
    ASSERT_EQ(response->get_response_len(), big.size());
    EXPECT_TRUE(body_of(response) == big);

    // A large POST: libcurl asks for "100 Continue" first, which the server grants at once; the
    // interim head shows up in the header map beside the final one.
    auto post = request_for(server.url("/echo"));
    set_body(post, big);
    response = kiv_http_request_maker::execute(post);
    EXPECT_EQ(response->get_http_status(), 200);
    EXPECT_TRUE(body_of(response) == big);
    auto* headers = response->getResponseHeaders();
    EXPECT_EQ(headers->count("HTTP/1.1 100 Continue\r\n"), 1u);
    EXPECT_EQ(headers->count("HTTP/1.1 200 OK\r\n"), 1u);
    std::vector<ReceivedRequest> seen = server.requests();
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[2].header("Expect"), "100-continue");
    EXPECT_TRUE(seen[2].body == big);
    EXPECT_GT(seen[2].body_pieces.size(), 1u);
}

TEST_F(ExecuteTest, HttpErrorStatusIsNotALocalError) {
    HttpServer server;
    auto response = kiv_http_request_maker::execute(request_for(server.url("/missing")));
    EXPECT_EQ(response->get_http_status(), 404);
    EXPECT_EQ(response->get_local_request_error(), HTTP_REQUEST_OK);
    EXPECT_EQ(response->getErrorMessage(), "");
    EXPECT_EQ(body_of(response), "no handler for /missing\n");
}

TEST_F(ExecuteTest, OnlyLowerCaseHttpsSkipsCertificateChecks) {
    kiv::test::HttpServerOptions options;
    options.tls = kiv::test::make_self_signed_cert("kiv.test");
    HttpServer server(options);
    server.on("/tls", [](const ReceivedRequest&) { return Reply::text("secure"); });
    const std::string target = "://127.0.0.1:" + std::to_string(server.port()) + "/tls";

    auto response = kiv_http_request_maker::execute(request_for("https" + target));
    EXPECT_EQ(response->get_http_status(), 200);
    EXPECT_EQ(body_of(response), "secure");

    // libcurl takes the scheme in any case, but verification stays on and the self-signed
    // certificate is refused.
    expect_curl_failure(request_for("HTTPS" + target), 60);
    EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(ExecuteTest, TimeLimitAndRefusedConnectionLeaveTheResponseAsMade) {
    {
        SCOPED_TRACE("time limit on a silent server");
        RawServer silent(answer_then_stall(""));
        auto limited = request_for(silent.url("/silent"));
        limited->_TIMEOUT_MS = 200;
        expect_curl_failure(limited, 28);
    }
    {
        SCOPED_TRACE("refused connection");
        kiv::test::ClosedPort closed;
        expect_curl_failure(request_for("http://127.0.0.1:" + std::to_string(closed.port()) + "/"),
                            7);
    }
}

TEST_F(ExecuteTest, CancelFromAnotherThreadKeepsWhatArrived) {
    // Head and the first body bytes in one write: libcurl reads them together and hands the
    // bytes over before its progress function, which is where a cancel takes effect, runs again.
    RawServer server(answer_then_stall(
        "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\nX-Stage: first\r\n\r\npartial"));
    auto request = request_for(server.url("/stall"));

    LogCapture log(6, LogCapture::Mode::kPipe);
    kiv_shared_ptr<kiv_HttpResponse> response;
    std::thread caller([&] { response = kiv_http_request_maker::execute(request); });
    const bool head_arrived = log.wait_for("HEADER_KEY: X-Stage, VALUE: first", Ms(10000));
    request->cancel();
    caller.join();  // the progress function runs at least once a second while the peer is silent
    ASSERT_TRUE(head_arrived);

    EXPECT_EQ(response->get_local_request_error(), HTTP_REQUEST_ABORTED);
    EXPECT_EQ(response->get_http_status(), 0);
    EXPECT_EQ(body_of(response), "partial");
    EXPECT_EQ((*response->getResponseHeaders())["X-Stage"], "first");
    std::vector<std::string> lines = without_time(log.finish());
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2],
              "[DEBUG]-[]" + line_at(121, "[ASRHttpTask::execute]") +
                  "[curl_code=42, http_stauts=200, response_len=7] receive response: partial");
    EXPECT_EQ(lines.back(),
              "[DEBUG]-[]" + line_at(126, "[ASRHttpTask::execute] curl is aborted by call back"));

    // Cancelled before it starts: the first progress call already stops it.
    auto early = request_for(server.url("/stall"));
    early->cancel();
    EXPECT_EQ(kiv_http_request_maker::execute(early)->get_local_request_error(),
              HTTP_REQUEST_ABORTED);
}

TEST_F(ExecuteTest, HeadLinesReachTheHeaderMapAndTheTraceLog) {
    // Sent one byte per write, so that lines reach libcurl split at every position.
    RawServer server(
        answer_with("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nX-Dup: 1\r\nX-Dup: 2\r\n"
                    "X-Colons:\t a:b: c \r\nX-Empty:\r\nContent-Length: 5\r\n\r\nhello",
                    true));
    const std::string url = server.url("/log");

    LogCapture log(6);
    auto response = kiv_http_request_maker::execute(request_for(url));
    std::vector<std::string> lines = without_time(log.finish());

    EXPECT_EQ(response->get_http_status(), 200);
    EXPECT_EQ(body_of(response), "hello");
    const std::map<std::string, std::string> expected_map = {{"HTTP/1.1 200 OK\r\n", ""},
                                                             {"Content-Type", "text/plain"},
                                                             {"X-Dup", "2"},
                                                             {"X-Colons", "a:b: c "},
                                                             {"X-Empty", ""},
                                                             {"Content-Length", "5"},
                                                             {"\r\n", ""}};
    EXPECT_EQ(*response->getResponseHeaders(), expected_map);

    auto trace = [](const std::string& key, const std::string& value) {
        return "[TRACE]-[]" + line_at(204, "HEADER_KEY: " + key + ", VALUE: " + value);
    };
    const std::vector<std::string> expected_log = {
        "[DEBUG]-[]" + line_at(86, "[ASRHttpTask::execute] url = " + url),
        trace("Content-Type", "text/plain"),
        "",
        trace("X-Dup", "1"),
        "",
        trace("X-Dup", "2"),
        "",
        trace("X-Colons", "a:b: c "),
        "",
        trace("X-Empty", ""),
        "",
        trace("Content-Length", "5"),
        "",
        "[DEBUG]-[]" + line_at(121, "[ASRHttpTask::execute]") +
            "[curl_code=0, http_stauts=200, response_len=5] receive response: hello",
    };
    EXPECT_EQ(lines, expected_log);
}

TEST_F(ExecuteTest, LongDebugLineIsCutTo10239Characters) {
    HttpServer server;
    server.on("/long", [](const ReceivedRequest&) { return Reply::text(std::string(20000, 'a')); });

    LogCapture log(5);
    auto response = kiv_http_request_maker::execute(request_for(server.url("/long")));
    EXPECT_EQ(response->get_response_len(), 20000u);
    std::vector<std::string> lines = log.finish();

    ASSERT_EQ(lines.size(), 2u);
    const std::string& cut = lines[1];
    EXPECT_EQ(cut.size(), 10239u);
    const std::string head = "[DEBUG]-[]" + line_at(121, "[ASRHttpTask::execute]") +
                             "[curl_code=0, http_stauts=200, response_len=20000] "
                             "receive response: ";
    const std::string stripped = kiv::test::strip_log_time(cut);
    ASSERT_EQ(stripped.compare(0, head.size(), head), 0) << stripped.substr(0, head.size());
    EXPECT_EQ(stripped.find_first_not_of('a', head.size()), std::string::npos);
}

TEST_F(ExecuteTest, UnusableRequestsGiveNoResponseAndOneErrorLine) {
    const std::string null_request =
        "[ERROR]-[]" + line_at(35, "[ASRHttpTask::execute] request is NULL");
    const std::string no_url =
        "[ERROR]-[]" + line_at(42, "[ASRHttpTask::execute] URL is NULL or empty");
    struct Case {
        kiv_shared_ptr<kiv_HttpRequest> request;
        std::string line;
    } cases[] = {
        {kiv_shared_ptr<kiv_HttpRequest>(), null_request},
        {kiv_HttpRequest::requestWithUrl(kiv_shared_ptr<char>()), no_url},
        {request_for(""), no_url},
    };
    for (const Case& c : cases) {
        LogCapture log(6);
        EXPECT_EQ(kiv_http_request_maker::execute(c.request).getPTR(), nullptr);
        EXPECT_EQ(without_time(log.finish()), std::vector<std::string>{c.line});
    }
}

TEST_F(ExecuteTest, ManyThreadsAtOnceEachGetTheirOwnAnswer) {
    constexpr int kThreads = 16;
    constexpr int kRequests = 20;
    HttpServer server;
    server.on("/echo",
              [](const ReceivedRequest& r) { return Reply::text(r.query + "|" + r.body); });

    std::mutex mutex;
    std::condition_variable go;
    int ready = 0;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            {
                std::unique_lock<std::mutex> lock(mutex);
                ++ready;
                go.notify_all();
                go.wait_for(lock, Ms(10000), [&] { return ready == kThreads; });
            }
            for (int i = 0; i < kRequests; ++i) {
                const std::string id = "t=" + std::to_string(t) + "&i=" + std::to_string(i);
                auto request = request_for(server.url("/echo?" + id));
                set_body(request, id + std::string(static_cast<size_t>(t * 37 + i), 'b'));
                auto response = kiv_http_request_maker::execute(request);
                const std::string expected =
                    id + "|" + id + std::string(static_cast<size_t>(t * 37 + i), 'b');
                if (response->get_http_status() != 200 || body_of(response) != expected) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(server.requests().size(), static_cast<size_t>(kThreads * kRequests));
}

}  // namespace

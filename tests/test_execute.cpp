// The one-shot request against loopback servers: the bytes it sends, the response record it
// returns and the log lines it writes.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "core/utility/Networking/kiv_HttpRequestMaker.h"
#include "tests/support/http_server.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_server.h"
#include "tests/support/tls_cert.h"

namespace {

using namespace kiv::Networking;
using namespace kiv::test;
using Request = kiv::Memory::kiv_shared_ptr<kiv_HttpRequest>;
using Response = kiv::Memory::kiv_shared_ptr<kiv_HttpResponse>;
using Ms = std::chrono::milliseconds;

Request request_for(const std::string& url, const std::string& body = "") {
    Request request = kiv_HttpRequest::requestWithUrl(url);
    request->_BODY_DATA = kiv::Memory::make_shared_array<unsigned char>(body.size() + 1);
    memcpy(request->_BODY_DATA.getPTR(), body.data(), body.size());
    request->_BODY_LENGTH = static_cast<long>(body.size());
    return request;
}

std::string body_of(const Response& response) {
    return std::string(response->get_response_data().getPTR(), response->get_response_len());
}

// Captured lines without their time stamps.
std::vector<std::string> lines_of(LogCapture& log) {
    std::vector<std::string> lines = log.finish();
    std::transform(lines.begin(), lines.end(), lines.begin(), strip_log_time);
    return lines;
}

// A log line of the file under test, as lines_of() returns it.
std::string logged(const std::string& tag, int line, const std::string& rest,
                   const std::string& where = "[ASRHttpTask::execute]") {
    return "[" + tag + "]-[][asr_http_task_CURL.cpp:" + std::to_string(line) + "]" + where + rest;
}

std::string received_line(int code, int status, size_t length, const std::string& text) {
    return logged("DEBUG", 121,
                  "[curl_code=" + std::to_string(code) + ", http_stauts=" + std::to_string(status) +
                      ", response_len=" + std::to_string(length) + "] receive response: " + text);
}

// A raw handler: reads the request head (and a Content-Length body), sends `bytes` (one byte
// per write when `bytewise`), then, when `stall`, stays silent until the client goes away.
RawServer::Handler respond(std::string bytes, bool bytewise = false, bool stall = false) {
    return [=](RawConnection& c) {
        std::optional<std::string> head = c.read_head();
        auto length = head ? find_header(*head, "Content-Length") : std::nullopt;
        if (head && (!length || c.read_exact(std::stoul(*length))) &&
            (bytewise ? c.write_bytewise(bytes) : c.write_all(bytes)) && stall) {
            c.wait_for_close(Ms(20000));
        }
    };
}

TEST(ExecuteTest, BodyLengthAloneChoosesGetOrPostAndHeaderLinesGoOutSorted) {
    RawServer server(respond("HTTP/1.1 204 No Content\r\n\r\n"));
    const std::string accept = "Accept: */*\r\n\r\n";
    const std::string binary("a\0b\0\0\xff z", 8);
    const std::string post = "Accept: */*\r\nContent-Type: x/y\r\nContent-Length: 8\r\n\r\n";
    const std::string sorted = "Accept: t/x\r\nX-A: 1  2\t3\r\nX-b: 2\r\n\r\n";
    struct Case {
        std::string target, body;
        long length;
        std::map<std::string, std::string> headers;
        std::string wire;  // what follows the Host line
    } cases[] = {
        {"/plain", "", 0, {}, accept},
        // Sorted by name, values as given; Accept replaces libcurl's own line.
        {"/headers", "", 0, {{"X-b", "2"}, {"X-A", "1  2\t3"}, {"Accept", "t/x"}}, sorted},
        {"/no-body", "", 0, {}, accept},
        {"/negative-length", "ignored", -5, {}, accept},
        {"/zero-length", "ignored", 0, {}, accept},
        {"/binary", binary, 8, {{"Content-Type", "x/y"}}, post + binary},  // zero bytes too
    };
    for (const Case& c : cases) {
        Request request = request_for(server.url(c.target), c.body);
        // The method field is ignored: set it to the other one each time.
        request->_METHOD = c.length > 0 ? HTTP_REQUEST_METHOD_GET : HTTP_REQUEST_METHOD_POST;
        request->_BODY_LENGTH = c.length;
        request->_HEADER_LIST = c.headers;
        EXPECT_EQ(kiv_http_request_maker::execute(request)->get_http_status(), 204) << c.target;
    }
    const size_t count = sizeof cases / sizeof cases[0];
    ASSERT_TRUE(server.wait_for_finished(count, Ms(5000)));
    std::vector<std::string> wire = server.received();
    ASSERT_EQ(wire.size(), count);
    const std::string host =
        " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) + "\r\n";
    for (size_t i = 0; i < count; ++i) {
        const char* method = cases[i].length > 0 ? "POST " : "GET ";
        EXPECT_EQ(wire[i], method + cases[i].target + host + cases[i].wire);
    }
}

TEST(ExecuteTest, HttpsResponsesKeepEveryByteAndTheLogShowsThemAsText) {
    HttpServerOptions options;
    options.tls = make_self_signed_cert("kiv.test");  // accepted for "https://"
    HttpServer server(options);
    std::string big(1024 * 1024 + 7, '\0');  // far more than one libcurl receive buffer
    for (size_t i = 0; i < big.size(); ++i) {
        big[i] = static_cast<char>((i * 31 + i / 4099) % 251);
    }
    // A log line is cut to 10239 characters, 23 of which are the time stamp.
    const std::string cut = received_line(0, 200, 20000, "");
    struct Case {
        std::string target, sent;
        int status;
        std::string body, last_log;  // the log line is checked when given
    } cases[] = {
        // The log prints the body as text: up to its first zero byte.
        {"/zeros", "", 200, std::string("x\0y\0\0z", 6), received_line(0, 200, 6, "x")},
        {"/long", "", 200, std::string(20000, 'a'),
         cut + std::string(10239 - 23 - cut.size(), 'a')},
        {"/big", "", 200, big, ""},
        {"/echo", big, 200, big, ""},
        {"/missing", "", 404, "no handler for /missing\n", ""},  // not a local error
    };
    for (const Case& c : cases) {
        if (c.status == 200) {
            server.on(c.target, [&c](const ReceivedRequest& r) {
                return Reply::text(c.sent.empty() ? c.body : r.body);
            });
        }
        SCOPED_TRACE(c.target);
        LogCapture log(5);
        Response response =
            kiv_http_request_maker::execute(request_for(server.url(c.target), c.sent));
        std::vector<std::string> lines = lines_of(log);
        EXPECT_EQ(response->get_http_status(), c.status);
        EXPECT_EQ(response->get_local_request_error(), HTTP_REQUEST_OK);
        ASSERT_EQ(response->get_response_len(), c.body.size());
        EXPECT_TRUE(body_of(response) == c.body);
        EXPECT_EQ(response->get_response_data().getPTR()[c.body.size()], '\0');
        if (!c.last_log.empty()) {
            EXPECT_EQ(lines.at(1), c.last_log);
        }
        if (!c.sent.empty()) {
            // libcurl asks for "100 Continue" first; the interim head is in the header map too.
            EXPECT_EQ(response->getResponseHeaders()->count("HTTP/1.1 100 Continue\r\n"), 1u);
            EXPECT_EQ(response->getResponseHeaders()->count("HTTP/1.1 200 OK\r\n"), 1u);
            EXPECT_EQ(server.requests().back().header("Expect"), "100-continue");
            EXPECT_TRUE(server.requests().back().body == c.sent);
        }
    }
}

TEST(ExecuteTest, CancelFromAnotherThreadKeepsWhatArrived) {
    // Head and the first body bytes in one write: libcurl hands the bytes over before its
    // progress function, where a cancel takes effect, runs again.
    RawServer server(respond(
        "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\nX-Stage: first\r\n\r\npartial", false, true));
    Request request = request_for(server.url("/stall"));
    LogCapture log(6, LogCapture::Mode::kPipe);
    Response response;
    std::thread caller([&] { response = kiv_http_request_maker::execute(request); });
    const bool head_arrived = log.wait_for("HEADER_KEY: X-Stage, VALUE: first", Ms(10000));
    request->cancel();
    caller.join();  // the progress function runs at least once a second while the peer is silent
    ASSERT_TRUE(head_arrived);
    EXPECT_EQ(response->get_local_request_error(), HTTP_REQUEST_ABORTED);
    EXPECT_EQ(response->get_http_status(), 0);
    EXPECT_EQ(body_of(response), "partial");
    EXPECT_EQ((*response->getResponseHeaders())["X-Stage"], "first");
    std::vector<std::string> lines = lines_of(log);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], received_line(42, 200, 7, "partial"));
    EXPECT_EQ(lines.back(), logged("DEBUG", 126, " curl is aborted by call back"));

    // Cancelled before it starts: the first progress call already stops it.
    Request early = request_for(server.url("/stall"));
    early->cancel();
    EXPECT_EQ(kiv_http_request_maker::execute(early)->get_local_request_error(),
              HTTP_REQUEST_ABORTED);
}

TEST(ExecuteTest, HeadLinesReachTheHeaderMapAndTheTraceLog) {
    // One byte per write, so that lines reach libcurl split at every position.
    RawServer server(
        respond("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nX-Dup: 1\r\nX-Dup: 2\r\n"
                "X-Colons:\t a:b: c \r\nX-Empty:\r\nContent-Length: 5\r\n\r\nhello",
                true));
    LogCapture log(6);
    Response response = kiv_http_request_maker::execute(request_for(server.url("/log")));
    EXPECT_EQ(response->get_http_status(), 200);
    EXPECT_EQ(body_of(response), "hello");

    const std::pair<std::string, std::string> fields[] = {
        {"Content-Type", "text/plain"}, {"X-Dup", "1"},  {"X-Dup", "2"},
        {"X-Colons", "a:b: c "},        {"X-Empty", ""}, {"Content-Length", "5"}};
    std::map<std::string, std::string> map = {{"HTTP/1.1 200 OK\r\n", ""}, {"\r\n", ""}};
    std::vector<std::string> log_lines = {logged("DEBUG", 86, " url = " + server.url("/log"))};
    for (const auto& field : fields) {
        map[field.first] = field.second;  // a repeated name keeps its last value
        log_lines.push_back(
            logged("TRACE", 204, "HEADER_KEY: " + field.first + ", VALUE: " + field.second, ""));
        log_lines.push_back("");
    }
    log_lines.push_back(received_line(0, 200, 5, "hello"));
    EXPECT_EQ(*response->getResponseHeaders(), map);
    EXPECT_EQ(lines_of(log), log_lines);
}

TEST(ExecuteTest, BadInputAndFailedTransfersGiveOneErrorLine) {
    HttpServerOptions options;
    options.tls = make_self_signed_cert("kiv.test");
    HttpServer tls(options);
    RawServer silent(respond("", false, true));
    ClosedPort closed;
    Request limited = request_for(silent.url("/silent"));
    limited->_TIMEOUT_MS = 200;
    Request no_data = request_for(silent.url("/never"), "data");
    no_data->_BODY_DATA = kiv::Memory::kiv_shared_ptr<unsigned char>();  // libcurl would read stdin
    auto curl_error = [](int code) {
        return logged("ERROR", 129, "[curl_code=" + std::to_string(code) + "] curl error!");
    };
    const std::pair<Request, std::string> cases[] = {
        {Request(), logged("ERROR", 35, " request is NULL")},
        {kiv_HttpRequest::requestWithUrl(kiv::Memory::kiv_shared_ptr<char>()),
         logged("ERROR", 42, " URL is NULL or empty")},
        {request_for(""), logged("ERROR", 42, " URL is NULL or empty")},
        {no_data, logged("ERROR", 47, " body length 4 without body data")},
        // libcurl takes the scheme in any case, but verification stays on.
        {request_for(tls.url("/").replace(0, 5, "HTTPS")), curl_error(60)},
        {limited, curl_error(28)},
        {request_for("http://127.0.0.1:" + std::to_string(closed.port()) + "/"), curl_error(7)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.second);
        LogCapture log(2);
        Response response = kiv_http_request_maker::execute(c.first);
        EXPECT_EQ(lines_of(log), std::vector<std::string>{c.second});
        // Bad input gives no record; a failed transfer an empty one.
        ASSERT_EQ(response.getPTR() != nullptr, c.second.find(":129]") != std::string::npos);
        if (response.getPTR()) {
            EXPECT_EQ(response->get_http_status(), 0);
            EXPECT_EQ(response->get_local_request_error(), HTTP_REQUEST_OK);
            EXPECT_EQ(response->get_response_len(), 0u);
            // The failure says why, in libcurl's words.
            const std::string code = c.second.substr(c.second.find("curl_code=") + 10);
            EXPECT_EQ(response->get_curl_code(), std::stoi(code));
            EXPECT_FALSE(response->get_curl_error().empty());
        }
    }
    Response refused = kiv_http_request_maker::execute(
        request_for("http://127.0.0.1:" + std::to_string(closed.port()) + "/"));
    EXPECT_NE(refused->get_curl_error().find("onnect"), std::string::npos)
        << refused->get_curl_error();
    EXPECT_TRUE(tls.requests().empty());
}

TEST(ExecuteTest, ManyThreadsAtOnceEachGetTheirOwnAnswer) {
    HttpServer server;
    server.on("/echo",
              [](const ReceivedRequest& r) { return Reply::text(r.query + "|" + r.body); });
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 16; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i) {
                const std::string id = "t=" + std::to_string(t) + "&i=" + std::to_string(i);
                const std::string body = id + std::string(static_cast<size_t>(t * 37 + i), 'b');
                Response response =
                    kiv_http_request_maker::execute(request_for(server.url("/echo?" + id), body));
                wrong += response->get_http_status() != 200 || body_of(response) != id + "|" + body;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(server.requests().size(), 16u * 20u);
}

}  // namespace

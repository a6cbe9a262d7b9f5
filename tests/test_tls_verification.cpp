// Certificate verification and host pinning against real TLS servers on loopback: the server
// with a certificate from a test CA, and an impostor at the same address with its own
// self-signed certificate for the same name.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/utility/Networking/kiv_HttpRequestMaker.h"
#include "tests/streaming_fixture.h"
#include "tests/support/http_server.h"
#include "tests/support/raw_server.h"
#include "tests/support/temp_dir.h"
#include "tests/support/tls_cert.h"

using namespace kiv::test;
using namespace kiv::Networking;
using std::chrono::seconds;

namespace {

const char kHost[] = "asr.kiv-tls.test";  // a name no resolver knows

struct Setting {
    const char* name;
    bool system_store;
    bool ca_file;
    const char* pin;  // "server", "impostor", "other" or ""
};

}  // namespace

TEST(TlsVerificationTest, EachSettingAgainstTheServerAndAnImpostor) {
    TempDir dir;
    const TlsCert ca = make_ca("kiv test CA");
    const TlsCert real = make_signed_cert(ca, kHost);
    const TlsCert impostor = make_self_signed_cert(kHost);
    const std::string caFile = dir.file("ca.pem");
    write_file(caFile, ca.cert_pem);
    const std::string pins[] = {public_key_pin(real), public_key_pin(impostor),
                                public_key_pin(make_self_signed_cert("other"))};

    const Setting settings[] = {
        {"nothing set (accepts any certificate)", false, false, ""},
        {"CA file", false, true, ""},
        {"pinned key", false, false, "server"},
        {"CA file and pinned key", false, true, "server"},
        {"the impostor's key pinned", false, true, "impostor"},
        {"a wrong pinned key", false, false, "other"},
        {"system CA store", true, false, ""},
    };
    // Expected outcome per setting: the real server, then the impostor.
    const bool accepted[][2] = {{true, true},   {true, false},  {true, false}, {true, false},
                                {false, false}, {false, false}, {false, false}};

    for (int which = 0; which < 2; ++which) {
        HttpServerOptions options;
        options.tls = which == 0 ? real : impostor;
        HttpServer server(options);
        server.on("/x", [](const ReceivedRequest&) { return Reply::text("answer"); });
        for (size_t i = 0; i < sizeof settings / sizeof settings[0]; ++i) {
            const Setting& s = settings[i];
            SCOPED_TRACE(std::string(which == 0 ? "server" : "impostor") + ", " + s.name);
            auto apply = [&](kiv::Memory::kiv_shared_ptr<kiv_HttpRequest>& request) {
                request->_VERIFY_TLS = s.system_store;
                request->_CA_FILE = s.ca_file ? caFile : "";
                const std::string pin = s.pin;
                request->_PINNED_PUBLIC_KEY = pin == "server"     ? pins[0]
                                              : pin == "impostor" ? pins[1]
                                              : pin == "other"    ? pins[2]
                                                                  : "";
            };
            const bool expected = accepted[i][which];

            // One-shot, straight to the address (the certificates name 127.0.0.1 too).
            auto request = kiv_HttpRequest::requestWithUrl(server.url("/x"));
            apply(request);
            auto response = kiv_http_request_maker::execute(request);
            ASSERT_NE(response.getPTR(), nullptr);
            EXPECT_EQ(response->get_http_status() == 200, expected)
                << "one-shot: " << response->get_curl_error();
            if (!expected) {
                EXPECT_FALSE(response->get_curl_error().empty());
            }

            // Streaming, pinned: connect to the address, speak to the name.
            Stream stream;
            auto down = kiv_HttpRequest::requestWithUrl(server.url("/x"));
            down->_METHOD = HTTP_REQUEST_METHOD_CHUNK_DOWN;
            down->_origin_URL = std::string("https://") + kHost + "/x";
            apply(down);
            kiv::Memory::kiv_shared_ptr<Recorder> param(new Recorder(stream.shared()));
            stream.task()->start_request(down, &Recorder::callback, &param);
            ASSERT_TRUE(stream.wait_final());
            const Delivery end = stream.finals().at(0);
            EXPECT_EQ(end.error == HTTP_REQUEST_HTTPS_REQ_SUC, expected)
                << "streaming: " << end.curlError;
            EXPECT_EQ(stream.body(), expected ? "answer" : "");
        }
    }
}

// Pinning on a port of its own and on 443, and to an IPv6 loopback address: the server sees
// the host name in the TLS handshake and in Host, and the CA verifies it.
TEST(TlsVerificationTest, PinningWorksOnAnyPortAndOverIpv6) {
    const TlsCert ca = make_ca("kiv test CA");
    const TlsCert cert = make_signed_cert(ca, kHost);
    TempDir dir;
    write_file(dir.file("ca.pem"), ca.cert_pem);
    struct Target {
        std::string address;
        uint16_t port;
    };
    int exercised = 0;
    for (const Target& t :
         {Target{"127.0.0.2", 8443}, Target{"127.0.0.2", 443}, Target{"::1", 0}}) {
        SCOPED_TRACE(t.address + " port " + std::to_string(t.port));
        if (!can_bind(t.address, t.port)) {
            printf("skipped: cannot bind %s port %u here\n", t.address.c_str(), t.port);
            continue;
        }
        HttpServerOptions options;
        options.address = t.address;
        options.port = t.port;
        options.tls = cert;
        HttpServer server(options);
        server.on("/up", [](const ReceivedRequest& r) { return Reply::text("got " + r.body); });
        const std::string port = std::to_string(server.port());
        const std::string named = std::string(kHost) + (server.port() == 443 ? "" : ":" + port);

        Stream up;
        auto request = kiv_HttpRequest::requestWithUrl(server.url("/up"));
        request->_METHOD = HTTP_REQUEST_METHOD_CHUNK_UP;
        request->_origin_URL = "https://" + named + "/up";
        request->_CA_FILE = dir.file("ca.pem");
        kiv::Memory::kiv_shared_ptr<Recorder> param(new Recorder(up.shared()));
        up.task()->start_request(request, &Recorder::callback, &param);
        up.send("pinned audio", true);
        ASSERT_TRUE(up.wait_final());
        EXPECT_EQ(up.finals().at(0).status, 200) << up.finals().at(0).curlError;
        EXPECT_EQ(up.finals().at(0).body, "got pinned audio");
        ASSERT_TRUE(server.wait_for_requests(1, seconds(5)));
        EXPECT_EQ(server.requests().at(0).sni, kHost);
        EXPECT_EQ(server.requests().at(0).header("Host"), named);
        ++exercised;
    }
    if (exercised == 0) {
        GTEST_SKIP() << "no pinning target could be bound here";
    }
}

// What cannot be pinned never reaches libcurl: one error delivery and an error line naming the
// URL. An HTTPS URL without a host-name form connects directly.
TEST(TlsVerificationTest, UnpinnableUrlsEndWithOneErrorAndNoOriginConnectsDirectly) {
    Stream stream;
    auto request = kiv_HttpRequest::requestWithUrl("https://backend.internal/x");
    request->_METHOD = HTTP_REQUEST_METHOD_CHUNK_DOWN;
    request->_origin_URL = std::string("https://") + kHost + "/x";
    kiv::Memory::kiv_shared_ptr<Recorder> param(new Recorder(stream.shared()));
    stream.task()->start_request(request, &Recorder::callback, &param);
    ASSERT_TRUE(stream.wait_final());
    ASSERT_EQ(stream.deliveries().size(), 1u);
    EXPECT_EQ(stream.finals().at(0).error, HTTP_REQUEST_CHUNK_REQ_ERROR);
    EXPECT_NE(stream.finals().at(0).curlError.find("https://backend.internal/x"),
              std::string::npos);

    const TlsCert ca = make_ca("kiv test CA");
    HttpServerOptions options;
    options.tls = make_signed_cert(ca, kHost);
    HttpServer server(options);
    server.on("/x", [](const ReceivedRequest&) { return Reply::text("direct"); });
    TempDir dir;
    write_file(dir.file("ca.pem"), ca.cert_pem);
    Stream direct;
    auto plain = kiv_HttpRequest::requestWithUrl(server.url("/x"));  // origin = the same text
    plain->_METHOD = HTTP_REQUEST_METHOD_CHUNK_DOWN;
    plain->_CA_FILE = dir.file("ca.pem");
    kiv::Memory::kiv_shared_ptr<Recorder> directParam(new Recorder(direct.shared()));
    direct.task()->start_request(plain, &Recorder::callback, &directParam);
    ASSERT_TRUE(direct.wait_final());
    EXPECT_EQ(direct.finals().at(0).error, HTTP_REQUEST_HTTPS_REQ_SUC)
        << direct.finals().at(0).curlError;
    EXPECT_EQ(direct.body(), "direct");
    EXPECT_EQ(server.requests().at(0).sni, "");  // an IP address is never sent as SNI
}

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/http_server.h"
#include "tests/support/raw_server.h"
#include "tests/support/temp_dir.h"
#include "tests/support/tls_cert.h"
#include "tools/server/command_grammar.h"
#include "tools/server/recognition_server.h"
#include "tools/server/speech.h"

// The kiv-http tool end to end, as a user runs it: a real process, real servers on loopback.

namespace {

struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
};

std::string quote(const std::string& arg) {
    std::string quoted = "'";
    for (char c : arg) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

// Runs kiv-http with `args` (each quoted), stdout and stderr captured, bounded by `timeout`.
ToolRun run_tool(const std::vector<std::string>& args, int timeout_s = 120) {
    kiv::test::TempDir dir;
    std::string cmd = "timeout " + std::to_string(timeout_s) + " " + quote(KIV_HTTP_TOOL);
    for (const std::string& arg : args) {
        cmd += " " + quote(arg);
    }
    cmd += " >" + quote(dir.file("out")) + " 2>" + quote(dir.file("err")) + " </dev/null";
    ToolRun run;
    int raw = system(cmd.c_str());
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    run.out = kiv::test::read_file(dir.file("out"));
    run.err = kiv::test::read_file(dir.file("err"));
    return run;
}

// Each sentence's final line, in order.
std::vector<std::string> finals_of(const std::string& out) {
    std::vector<std::string> finals;
    const std::string tag = "    final:   ";
    for (size_t at = out.find(tag); at != std::string::npos; at = out.find(tag, at + 1)) {
        size_t end = out.find('\n', at);
        finals.push_back(out.substr(at + tag.size(), end - at - tag.size()));
    }
    return finals;
}

void expect_demo_transcribes(bool https) {
    std::vector<std::string> sentences = kiv::demo::example_phrases();
    ASSERT_GE(sentences.size(), 10u);
    std::vector<std::string> args = {"demo", "--fast"};
    if (https) {
        args.push_back("--https");
    }
    for (const std::string& s : sentences) {
        args.push_back("--text");
        args.push_back(s);
    }
    ToolRun run = run_tool(args, 240);
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_EQ(finals_of(run.out), sentences) << run.out;
    const std::string summary = std::to_string(sentences.size()) + " of " +
                                std::to_string(sentences.size()) +
                                " utterances exact, word accuracy 100.0%";
    EXPECT_NE(run.out.find(summary), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("partial: "), std::string::npos) << "no partial result streamed";
    printf("%s", run.out.substr(run.out.rfind("summary:")).c_str());
}

}  // namespace

TEST(KivHttpToolTest, DemoTranscribesEverySentenceOverHttp) {
    expect_demo_transcribes(false);
}

TEST(KivHttpToolTest, DemoTranscribesEverySentenceOverPinnedHttps) {
    if (!kiv::test::can_bind("127.0.0.2", 443)) {
        GTEST_SKIP() << "cannot bind 127.0.0.2:443 here (needs root); HTTPS demo not exercised";
    }
    expect_demo_transcribes(true);
}

TEST(KivHttpToolTest, OneShotExitCodesAndOutput) {
    kiv::demo::RecognitionServer server;
    ASSERT_TRUE(server.start("127.0.0.1", 0)) << server.last_error();
    const std::string base = "http://127.0.0.1:" + std::to_string(server.port());

    ToolRun ok = run_tool({"get", "-i", base + "/v1/health"});
    EXPECT_EQ(ok.status, 0) << ok.err;
    EXPECT_EQ(ok.out.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << ok.out;
    EXPECT_NE(ok.out.find("\"status\":\"ok\""), std::string::npos);

    ToolRun missing = run_tool({"get", base + "/nope"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_NE(missing.err.find("server answered 404"), std::string::npos) << missing.err;

    ToolRun wrongMethod = run_tool({"post", base + "/v1/health", "--data", "x", "-H", "X-A: 1"});
    EXPECT_EQ(wrongMethod.status, 2);

    kiv::test::ClosedPort closed;
    ToolRun refused = run_tool({"get", "http://127.0.0.1:" + std::to_string(closed.port()) + "/"});
    EXPECT_EQ(refused.status, 3);
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 2)
        << "one log line and one reason line: " << refused.err;
    EXPECT_NE(refused.err.find("onnect"), std::string::npos) << "libcurl's reason: " << refused.err;
    ToolRun refusedUpload =
        run_tool({"upload", "http://127.0.0.1:" + std::to_string(closed.port()) + "/", __FILE__});
    EXPECT_EQ(refusedUpload.status, 3);
    EXPECT_NE(refusedUpload.err.find("upload: failed: "), std::string::npos) << refusedUpload.err;
    EXPECT_NE(refusedUpload.err.find("onnect"), std::string::npos) << refusedUpload.err;

    ToolRun usage = run_tool({"post", base + "/v1/health"});
    EXPECT_NE(usage.status, 0);
    ToolRun badHeader = run_tool({"get", "-H", "no colon", base + "/v1/health"});
    EXPECT_EQ(badHeader.status, 1);
}

TEST(KivHttpToolTest, UploadAndDownloadMeetAtTheServer) {
    kiv::demo::RecognitionServer server;
    ASSERT_TRUE(server.start("127.0.0.1", 0)) << server.last_error();
    const std::string base =
        "http://127.0.0.1:" + std::to_string(server.port()) + "/v1/sessions/tool-1";
    std::string error;
    std::vector<int16_t> audio = kiv::demo::synthesize("call mom", &error);
    ASSERT_FALSE(audio.empty()) << error;
    kiv::test::TempDir dir;
    const std::string pcm = dir.file("audio.raw");
    kiv::test::write_file(pcm, std::string(reinterpret_cast<const char*>(audio.data()),
                                           audio.size() * sizeof(int16_t)));

    // The results stream first, in a child process; the upload then feeds the session.
    const std::string results = dir.file("results");
    std::string cmd = "timeout 60 " + quote(KIV_HTTP_TOOL) + " download " +
                      quote(base + "/results") + " >" + quote(results) + " 2>/dev/null &";
    ASSERT_EQ(system(cmd.c_str()), 0);
    ASSERT_TRUE(server.wait_for_session_count(1, std::chrono::seconds(20)));
    ToolRun upload = run_tool({"upload", base + "/audio", pcm, "--frame-ms", "40"});
    EXPECT_EQ(upload.status, 0) << upload.err;
    EXPECT_NE(upload.err.find("server answered 200"), std::string::npos) << upload.err;
    ASSERT_TRUE(server.wait_for_session_count(0, std::chrono::seconds(30)));
    std::string events;
    for (int i = 0; i < 100 && events.find("\"final\"") == std::string::npos; ++i) {
        usleep(50 * 1000);  // the child flushes each piece; poll its output, bounded
        events = kiv::test::read_file(results);
    }
    EXPECT_NE(events.find("{\"type\":\"final\",\"text\":\"call mom\"}"), std::string::npos)
        << events;
}

// Like curl: certificates are verified against the system's store by default; -k, --cacert and
// --pinnedpubkey change that; a verification failure exits 3 with libcurl's reason.
TEST(KivHttpToolTest, VerifiesCertificatesLikeCurl) {
    const kiv::test::TlsCert ca = kiv::test::make_ca("kiv tool test CA");
    const kiv::test::TlsCert cert = kiv::test::make_signed_cert(ca, "asr.kiv-tool.test");
    kiv::test::TempDir dir;
    const std::string caFile = dir.file("ca.pem");
    kiv::test::write_file(caFile, ca.cert_pem);
    kiv::test::HttpServerOptions options;
    options.tls = cert;
    kiv::test::HttpServer server(options);
    server.on("/x",
              [](const kiv::test::ReceivedRequest&) { return kiv::test::Reply::text("verified"); });
    const std::string url = server.url("/x");
    const std::string pin = kiv::test::public_key_pin(cert);
    const std::string otherPin = kiv::test::public_key_pin(kiv::test::make_ca("other"));
    struct Case {
        std::vector<std::string> args;
        int status;
    };
    const Case cases[] = {
        {{"get", url}, 3},  // the test CA is in no system store
        {{"get", "-k", url}, 0},
        {{"get", "--cacert", caFile, url}, 0},
        {{"get", "--cacert", caFile, "--pinnedpubkey", pin, url}, 0},
        {{"get", "-k", "--pinnedpubkey", pin, url}, 0},
        {{"get", "--cacert", caFile, "--pinnedpubkey", otherPin, url}, 3},
        {{"download", "--cacert", caFile, url}, 0},
        {{"download", url}, 3},
    };
    for (const Case& c : cases) {
        std::string line;
        for (const std::string& a : c.args) {
            line += a + " ";
        }
        SCOPED_TRACE(line);
        ToolRun run = run_tool(c.args);
        EXPECT_EQ(run.status, c.status) << run.err;
        if (c.status == 0) {
            EXPECT_EQ(run.out, "verified");
        } else {
            EXPECT_TRUE(run.err.find("certificate") != std::string::npos ||
                        run.err.find("public key") != std::string::npos)
                << "libcurl's reason: " << run.err;
        }
    }
}

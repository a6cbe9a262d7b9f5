#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
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

using Clock = std::chrono::steady_clock;

struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
    long max_rss_kb = 0;  // the tool's peak resident set
    Clock::time_point ended;
};

std::string quote(const std::string& arg) {
    std::string quoted = "'";
    for (char c : arg) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

// Runs kiv-http with `args` and `input` on its stdin, stdout and stderr captured, bounded by
// `timeout_s` (coreutils' timeout, whose rusage covers the tool it waited for).
ToolRun run_tool(const std::vector<std::string>& args, const std::string& input = std::string(),
                 int timeout_s = 120) {
    kiv::test::TempDir dir;
    const std::string in = dir.file("in"), out = dir.file("out"), err = dir.file("err");
    kiv::test::write_file(in, input);
    std::vector<std::string> words = {"timeout", std::to_string(timeout_s), KIV_HTTP_TOOL};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(&word[0]);
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT, 0600);
    ToolRun run;
    pid_t pid;
    if (posix_spawnp(&pid, "timeout", &actions, nullptr, argv.data(), environ) == 0) {
        int raw = 0;
        rusage usage{};
        while (wait4(pid, &raw, 0, &usage) < 0 && errno == EINTR) {
        }
        run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        run.max_rss_kb = usage.ru_maxrss;
    }
    run.ended = Clock::now();
    posix_spawn_file_actions_destroy(&actions);
    run.out = kiv::test::read_file(out);
    run.err = kiv::test::read_file(err);
    return run;
}

size_t lines(const std::string& text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
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
    ToolRun run = run_tool(args, std::string(), 240);
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

// Exit statuses as documented, each failure with one reason line: bad arguments 1 (not the
// parser's own codes), a final answer outside 2xx 2, no answer 3 with libcurl's reason.
TEST(KivHttpToolTest, ExitStatusesAndReasonLines) {
    kiv::test::HttpServer server;
    server.on("/ok",
              [](const kiv::test::ReceivedRequest&) { return kiv::test::Reply::text("ok"); });
    server.on("/moved", [](const kiv::test::ReceivedRequest&) {
        kiv::test::Reply reply = kiv::test::Reply::text("", 302);
        reply.headers.push_back({"Location", "/ok"});
        return reply;
    });
    const std::string ok = server.url("/ok");
    kiv::test::ClosedPort closed;
    const std::string refused = "http://127.0.0.1:" + std::to_string(closed.port()) + "/";
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string reason;  // in the one line on stderr
    };
    const Case cases[] = {
        {{"get", ok}, 0, {}},
        {{"get", server.url("/nope")}, 2, "server answered 404 Not Found"},
        {{"get", server.url("/moved")}, 2, "server answered 302 Found (-L follows redirects)"},
        {{"get", refused}, 3, "kiv-http: (7) Failed to connect"},
        {{"upload", "-s", refused, __FILE__}, 3, "kiv-http: (7) Failed to connect"},
        {{"upload", "-s", server.url("/moved"), __FILE__}, 3, "redirects followed"},
        {{"get"}, 1, "url is required"},
        {{"get", "--nope", ok}, 1, "--nope"},
        {{"get", "--max-time", "-1", ok}, 1, "--max-time"},
        {{"get", "--timeout-ms", "-5", ok}, 1, "--timeout-ms"},
        {{"get", "-H", "no colon", ok}, 1, "bad header"},
        {{"post", ok}, 1, "--data or --data-binary is required"},
        {{"post", "-d", "@/nonexistent", ok}, 1, "cannot read /nonexistent"},
        {{"upload", ok, "/nonexistent"}, 1, "/nonexistent"},
        {{"upload", "-L", ok, __FILE__}, 1, "upload does not follow redirects"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        ToolRun run = run_tool(c.args);
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_EQ(lines(run.err), c.status == 0 ? 0u : 1u) << run.err;
        EXPECT_NE(run.err.find(c.reason), std::string::npos) << run.err;
    }
}

// curl's flags, each against what the server received and what the tool printed.
TEST(KivHttpToolTest, TakesCurlsFlags) {
    kiv::test::HttpServer server;
    server.on("/echo", [](const kiv::test::ReceivedRequest& r) {
        return kiv::test::Reply::text(r.method + " " + r.body);
    });
    server.on("/moved", [](const kiv::test::ReceivedRequest&) {
        kiv::test::Reply reply = kiv::test::Reply::text("", 301);
        reply.headers.push_back({"Location", "/echo"});
        return reply;
    });
    auto silent = std::make_shared<kiv::test::PieceQueue>();  // a head, then nothing
    server.on("/silent", [silent](const kiv::test::ReceivedRequest&) {
        return kiv::test::Reply::streamed(silent);
    });
    const std::string echo = server.url("/echo");
    kiv::test::TempDir dir;
    const std::string body = dir.file("body"), saved = dir.file("saved");
    kiv::test::write_file(body, "a=1\r\nb=2\n");
    struct Case {
        std::vector<std::string> args;
        std::string input;  // on stdin
        int status;
        std::string out;
        std::vector<std::string> err;  // parts of stderr
    };
    const Case cases[] = {
        {{"get", "-o", saved, echo}, "", 0, "", {}},
        {{"get", "-L", server.url("/moved")}, "", 0, "GET ", {}},
        {{"post", "-L", "-d", "x", server.url("/moved")}, "", 0, "GET ", {}},  // as curl does
        {{"get", "-X", "DELETE", echo}, "", 0, "DELETE ", {}},
        {{"post", "-X", "PUT", "-d", "x", echo}, "", 0, "PUT x", {}},
        {{"post", "-d", "", echo}, "", 0, "POST ", {}},
        {{"post", "--data-binary", "@" + body, echo}, "", 0, "POST a=1\r\nb=2\n", {}},
        {{"post", "--data-binary", "@-", echo}, "\x01\r\n\x02", 0, "POST \x01\r\n\x02", {}},
        {{"post", "-d", "@-", echo}, "a=1\r\nb=2\n", 0, "POST a=1b=2", {}},
        {{"post", "-d", "@" + body, echo}, "", 0, "POST a=1b=2", {}},
        {{"get", "-v", echo},
         "",
         0,
         "GET ",
         {"* Connected to 127.0.0.1", "> GET /echo HTTP/1.1\r\n", "< HTTP/1.1 200 OK\r\n"}},
        {{"get", "--max-time", "0.2", server.url("/silent")}, "", 3, "", {"(28) "}},
        {{"get", "--timeout-ms", "200", server.url("/silent")}, "", 3, "", {"(28) "}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        ToolRun run = run_tool(c.args, c.input);
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_EQ(run.out, c.out);
        for (const std::string& part : c.err) {
            EXPECT_NE(run.err.find(part), std::string::npos) << run.err;
        }
    }
    EXPECT_EQ(kiv::test::read_file(saved), "GET ");
    ToolRun head = run_tool({"get", "-I", echo});
    EXPECT_EQ(head.status, 0);
    EXPECT_EQ(head.out.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << head.out;
    EXPECT_EQ(head.out.substr(head.out.size() - 4), "\r\n\r\n") << "a head and no body";
    EXPECT_EQ(server.requests().back().method, "HEAD");
}

// -i prints each head as it came, in order, duplicates kept, before the body: here a redirect's
// head and the final one with two Set-Cookie lines.
TEST(KivHttpToolTest, IncludeShowsEveryHeadAsReceived) {
    const std::string moved =
        "HTTP/1.1 302 Found\r\nLocation: /final\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    const std::string final_head =
        "HTTP/1.1 200 OK\r\nSet-Cookie: b=2\r\nx-lower: kept\r\nSet-Cookie: a=1\r\n"
        "Content-Length: 4\r\nConnection: close\r\n\r\n";
    kiv::test::RawServer server([&](kiv::test::RawConnection& c) {
        std::optional<std::string> head = c.read_head();
        if (head) {
            c.write_all(head->rfind("GET /final ", 0) == 0 ? final_head + "body" : moved);
        }
    });
    ToolRun run = run_tool({"get", "-i", "-L", server.url("/first")});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, moved + final_head + "body");
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
    ToolRun upload = run_tool({"upload", "-s", base + "/audio", pcm});
    EXPECT_EQ(upload.status, 0) << upload.err;
    EXPECT_EQ(upload.err, "");
    EXPECT_NE(upload.out.find("\"text\":\"call mom\""), std::string::npos)
        << "the server's answer on stdout: " << upload.out;
    ASSERT_TRUE(server.wait_for_session_count(0, std::chrono::seconds(30)));
    std::string events;
    for (int i = 0; i < 100 && events.find("\"final\"") == std::string::npos; ++i) {
        usleep(50 * 1000);  // the child flushes each piece; poll its output, bounded
        events = kiv::test::read_file(results);
    }
    EXPECT_NE(events.find("{\"type\":\"final\",\"text\":\"call mom\"}"), std::string::npos)
        << events;
}

// A server that goes away mid-upload ends a real-time upload at once, not once the whole file
// has been paced out.
TEST(KivHttpToolTest, UploadStopsWhenTheServerGoesAway) {
    Clock::time_point gone;
    kiv::test::RawServer server([&](kiv::test::RawConnection& c) {
        std::optional<std::string> head = c.read_head();
        if (head && head->find("100-continue") != std::string::npos) {
            c.write_all("HTTP/1.1 100 Continue\r\n\r\n");
        }
        c.read_exact(4096);  // a few frames in; returning closes the connection
        gone = Clock::now();
    });
    kiv::test::TempDir dir;
    std::string audio(30 * 32000, '\0');  // 30 s of 16 kHz audio that does not compress
    uint32_t x = 1;
    for (char& byte : audio) {
        x = x * 1664525u + 1013904223u;
        byte = static_cast<char>(x >> 24);
    }
    kiv::test::write_file(dir.file("audio.raw"), audio);
    ToolRun run =
        run_tool({"upload", "-s", "--realtime", server.url("/audio"), dir.file("audio.raw")});
    ASSERT_TRUE(server.wait_for_finished(1, std::chrono::seconds(5)));
    EXPECT_EQ(run.status, 3) << run.err;
    EXPECT_EQ(lines(run.err), 1u) << run.err;
    const double after = std::chrono::duration<double>(run.ended - gone).count();
    printf("the upload stopped %.3f s after the server went away\n", after);
    EXPECT_LT(after, 10.0) << "the tool kept pacing the file to a dead server";
}

// Sanitizers add memory of their own to the tool's: there only the growth is compared.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

// A 200 MiB body goes to -o piece by piece: the tool's memory stays that of a 1 MiB GET.
TEST(KivHttpToolSlowTest, GetOfA200MiBBodyInFlatMemory) {
    constexpr size_t kMiB = 1 << 20;
    constexpr size_t kBig = 200 * kMiB;
    std::string block(kMiB, '\0');
    for (size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<char>(i * 131 + i / 256);
    }
    kiv::test::RawServer server([&](kiv::test::RawConnection& c) {
        std::optional<std::string> head = c.read_head();
        const size_t size = head && head->rfind("GET /big ", 0) == 0 ? kBig : kMiB;
        c.write_all("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n");
        for (size_t sent = 0; sent < size && c.write_all(block); sent += block.size()) {
        }
    });
    kiv::test::TempDir dir;
    ToolRun small = run_tool({"get", "-o", dir.file("small"), server.url("/small")});
    ToolRun big = run_tool({"get", "-o", dir.file("big"), server.url("/big")});
    ASSERT_EQ(small.status, 0) << small.err;
    ASSERT_EQ(big.status, 0) << big.err;
    std::ifstream saved(dir.file("big"), std::ios::binary);
    std::string piece(kMiB, '\0');
    size_t blocks = 0;
    while (saved.read(&piece[0], kMiB) && piece == block) {
        ++blocks;
    }
    EXPECT_EQ(blocks * kMiB, kBig) << "the saved body differs from the sent one";
    EXPECT_EQ(saved.gcount(), 0);
    printf("peak RSS: %ld KiB for a 1 MiB body, %ld KiB for 200 MiB\n", small.max_rss_kb,
           big.max_rss_kb);
    EXPECT_LT(big.max_rss_kb - small.max_rss_kb, 16 * 1024);
    if (!kSanitized) {
        EXPECT_LT(big.max_rss_kb, 30 * 1024);
    }
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

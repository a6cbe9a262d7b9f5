#include <gtest/gtest.h>

#include "tests/streaming_fixture.h"
#include "tests/support/http_server.h"

using namespace kiv::test;
using namespace kiv::Networking;
using std::chrono::milliseconds;
using std::chrono::seconds;

// The 12 s inactivity limit of a chunked download. Slow by nature: these tests sit out the
// limit for real.

namespace {

// A download from a server that sends what the test pushes and otherwise stays silent, for
// longer than the limit.
class DownloadTimeoutTest : public testing::Test {
protected:
    DownloadTimeoutTest() : server(options()) {
        server.on("/down", [q = queue](const ReceivedRequest&) { return Reply::streamed(q); });
        stream.start(server.url("/down"), HTTP_REQUEST_METHOD_CHUNK_DOWN);
    }
    ~DownloadTimeoutTest() override { queue->close(); }

    static HttpServerOptions options() {
        HttpServerOptions o;
        o.stream_wait = seconds(40);
        return o;
    }

    std::shared_ptr<PieceQueue> queue = std::make_shared<PieceQueue>();
    HttpServer server;
    Stream stream;
};

}  // namespace

TEST_F(DownloadTimeoutTest, SilentServerGetsExactlyOneTimeoutDelivery) {
    queue->push("one piece, then silence");
    ASSERT_TRUE(stream.wait_deliveries(1));
    const auto quiet = std::chrono::steady_clock::now();
    ASSERT_TRUE(stream.wait_final(seconds(30)));
    EXPECT_GE(std::chrono::steady_clock::now() - quiet, milliseconds(11900))
        << "timed out before the inactivity limit";
    stream.release();
    ASSERT_TRUE(stream.wait_finished());
    std::vector<Delivery> finals = stream.finals();
    ASSERT_EQ(finals.size(), 1u) << "the aborted transfer must not deliver again";
    EXPECT_EQ(finals[0].error, HTTP_REQUEST_TIMEOUT);
    EXPECT_EQ(finals[0].status, 0);
    EXPECT_EQ(finals[0].message, "[kiv_httptask_impl] downStream timeout.");
}

TEST_F(DownloadTimeoutTest, PiecesEveryFewSecondsKeepTheDownloadAlive) {
    // 4 pieces 5 s apart: 20 s in all, longer than the limit, but never 12 s of silence.
    for (size_t i = 1; i <= 4; ++i) {
        queue->push("piece");
        ASSERT_TRUE(stream.wait_deliveries(i));
        EXPECT_TRUE(stream.finals().empty()) << "timed out although pieces kept coming";
        std::this_thread::sleep_for(seconds(5));  // the silence under test, not a synchronisation
    }
    queue->close();
    ASSERT_TRUE(stream.wait_final());
    std::vector<Delivery> finals = stream.finals();
    ASSERT_EQ(finals.size(), 1u);
    EXPECT_EQ(finals[0].error, HTTP_REQUEST_HTTPS_REQ_SUC);
}

#include <gtest/gtest.h>

#include "tests/streaming_fixture.h"
#include "tests/support/http_server.h"

using namespace kiv::test;
using namespace kiv::Networking;
using std::chrono::milliseconds;
using std::chrono::seconds;

// The 12 s inactivity limit of a chunked download, kept from firing by pieces that keep coming.
// Slow by nature: the test sits out the limit for real. (A silent server, that gets the timeout
// delivery, is a row of the hostile-peer matrix.)

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

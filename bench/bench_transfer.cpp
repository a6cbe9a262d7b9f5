// Single transfers over loopback, the layer against raw libcurl set up with the layer's options
// on the same server, in alternating rounds (request by request for the one-shots):
//
//  - one-shot GETs, one connection each: execute() against a fresh easy handle per request that
//    keeps the body and the header lines as execute does. Figure: requests per second.
//  - chunked download as fast as the server writes 16 KiB chunks: MB/s and client CPU per GiB
//    (the process less the server thread); and 32-byte pieces stamped with their send time,
//    one every --gap-us: latency to the callback, p50 and p99.
//  - chunked upload from a producer thread in 64 KiB pieces (send_data; raw: the plain queue),
//    never more than --window-kib ahead of what the server has read, as a live source would (a
//    larger window measures queue growth, not the hand-off): MB/s and client CPU per GiB; time
//    from the start to the server reading the first body byte, with 1 KiB queued at once (a
//    missed 100 Continue would cost a second); and one byte, 20 ms idle, again: latency from
//    the send to the server reading it, p50 and p99.
//
// Usage: bench_transfer [--quick] [--rounds 10] [--requests 500] [--mib 64] [--pieces 1000]
//                       [--gap-us 1000] [--samples 200] [--window-kib 1024]

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench/harness.h"
#include "bench/loopback_server.h"
#include "bench/streams.h"

namespace {

using namespace kiv_bench;

const size_t kPiece = 64 * 1024;
kiv_shared_ptr<unsigned char> g_buffer;  // what the uploads send (zeros)

void fail(bool layer, const char* what) {
    fprintf(stderr, "%s: %s\n", layer ? "layer" : "raw libcurl", what);
    exit(1);
}

bool get(bool layer, const std::string& url) {
    if (!layer) {
        std::string body;
        return raw_get(url, &body) == 200 && body == "ok";
    }
    auto response =
        kiv_http_request_maker::execute(kiv::Networking::kiv_HttpRequest::requestWithUrl(url));
    return response.getPTR() && response->get_http_status() == 200 &&
           response->get_response_len() == 2 &&
           memcmp(response->get_response_data().getPTR(), "ok", 2) == 0;
}

void download(bool layer, const std::string& url, Sink& sink) {
    if (layer) {
        kiv_shared_ptr<LayerStream> self(new LayerStream);
        self->sink.records = sink.records;
        kiv_shared_ptr<kiv_http_request_maker> task = LayerStream::start(url, false, self);
        if (!self->wait_ok(60000)) {
            fail(layer, "download without a clean end");
        }
        sink = self->sink;
        return;
    }
    long status = 0;  // on a thread of its own, as the layer's transfer runs on a worker
    std::thread([&] { status = raw_download(url, &sink); }).join();
    if (status != 200) {
        fail(layer, "download without a clean end");
    }
}

// One upload; `feed(push)` queues the first `len` bytes of g_buffer through push(len, last),
// on a producer thread while the raw side performs on a thread of its own (the layer's on a
// worker), or with `prefill` on this thread as the transfer starts (the raw side then performs on
// this thread with its bytes queued, so that it pays no thread start).
template <typename Feed>
void upload(bool layer, const std::string& url, Feed&& feed, bool prefill = false) {
    kiv_shared_ptr<LayerStream> self(new LayerStream);
    kiv_shared_ptr<kiv_http_request_maker> task;
    PlainQueue queue;
    // send_data copies the bytes, as the plain queue's push does: one copy in each side.
    auto push = [&](size_t len, bool last) {
        layer ? task->send_data(g_buffer, static_cast<long>(len), last)
              : queue.push(g_buffer.getPTR(), len, last);
    };
    if (layer) {
        task = LayerStream::start(url, true, self);
    }
    std::thread producer;
    if (prefill) {
        feed(push);
    } else {
        producer = std::thread([&] { feed(push); });
    }
    long status = 0;
    auto perform = [&] { status = raw_upload(url, &queue); };
    if (!layer && prefill) {
        perform();
    } else if (!layer) {
        std::thread(perform).join();
    }
    const bool ok = layer ? self->wait_ok(60000) : status == 200;
    if (producer.joinable()) {
        producer.join();
    }
    if (!ok) {
        fail(layer, "upload without a 200");
    }
}

// Waits (bounded) until the server has read `bytes` upload bytes in all.
void wait_bytes(LoopbackServer& server, uint64_t bytes, bool layer) {
    for (const int64_t give_up = now_ns() + 10000000000LL; server.upload_bytes.load() < bytes;) {
        if (now_ns() > give_up) {
            fail(layer, "the server stopped receiving");
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

}  // namespace

int main(int argc, char** argv) {
    start(argc, argv, true);
    const int rounds = static_cast<int>(arg("rounds", 10, 4));
    const int requests = static_cast<int>(arg("requests", 500, 100));
    const uint64_t bytes = static_cast<uint64_t>(arg("mib", 64, 16)) << 20;
    const int pieces = static_cast<int>(arg("pieces", 1000, 300));
    const int gap_us = static_cast<int>(arg("gap-us", 1000, 1000));
    const int samples = static_cast<int>(arg("samples", 200, 50));
    const uint64_t window = static_cast<uint64_t>(arg("window-kib", 1024, 1024)) << 10;
    g_buffer = kiv::Memory::make_shared_array<unsigned char>(kPiece);
    LoopbackServer server;
    const std::string info = fmt(" rounds=%d mib=%d", rounds, static_cast<int>(bytes >> 20));
    auto client_cpu = [&] { return process_cpu_seconds() - server.cpu_seconds(); };

    // One-shot GETs.
    double seconds[2] = {0, 0};  // of the current round
    auto one = [&](bool layer) {
        const int64_t start = now_ns();
        if (!get(layer, server.url("/ok"))) {
            fail(layer, "GET failed");
        }
        seconds[layer ? 0 : 1] += static_cast<double>(now_ns() - start) * 1e-9;
    };
    alternate(50, one);  // warm-up: allocator and libcurl first-use costs
    begin_phase();
    std::vector<double> rate[2];
    for (int r = 0; r < rounds; ++r) {
        seconds[0] = seconds[1] = 0;
        alternate(requests, one);
        rate[0].push_back(requests / seconds[0]);
        rate[1].push_back(requests / seconds[1]);
    }
    result("oneshot_get_rate", quantile(rate[0], 0.5), quantile(rate[1], 0.5), "req/s",
           fmt(" rounds=%d requests=%d", rounds, requests));

    // Download and upload throughput: `transfer(layer, size)` moves `size` bytes.
    const double gib = static_cast<double>(bytes) * rounds / (1 << 30);
    auto throughput = [&](const std::string& name, const std::string& extra, auto&& transfer) {
        std::vector<double> mbps[2];
        double cpu[2] = {0, 0};
        auto round = [&](bool layer, uint64_t size) {
            const double cpu0 = client_cpu();
            const int64_t start = now_ns();
            transfer(layer, size);
            mbps[layer ? 0 : 1].push_back(static_cast<double>(size) / (now_ns() - start) * 1e3);
            cpu[layer ? 0 : 1] += client_cpu() - cpu0;
        };
        alternate(1, [&](bool layer) { round(layer, 8 << 20); });  // pool, first-use costs
        mbps[0].clear(), mbps[1].clear(), cpu[0] = cpu[1] = 0;
        begin_phase();
        alternate(rounds, [&](bool layer) { round(layer, bytes); });
        result((name + "_throughput").c_str(), quantile(mbps[0], 0.5), quantile(mbps[1], 0.5),
               "MB/s", info + extra);
        result((name + "_client_cpu_per_gib").c_str(), cpu[0] / gib * 1e3, cpu[1] / gib * 1e3, "ms",
               info + extra);
    };
    throughput("download", "", [&](bool layer, uint64_t size) {
        Sink sink;
        download(layer, server.url("/bytes/" + std::to_string(size)), sink);
        if (sink.bytes != size) {
            fail(layer, "download short of bytes");
        }
    });
    const std::string window_kib = fmt(" window_kib=%d", static_cast<int>(window >> 10));
    throughput("upload", window_kib, [&](bool layer, uint64_t size) {
        const uint64_t base = server.upload_bytes.load();
        upload(layer, server.url("/up"), [&](auto&& push) {
            for (uint64_t sent = 0; sent < size;) {
                wait_bytes(server, base + (sent > window ? sent - window : 0), layer);
                const size_t n = static_cast<size_t>(std::min<uint64_t>(kPiece, size - sent));
                sent += n;
                push(n, sent == size);
            }
        });
        if (server.upload_bytes.load() - base != size) {
            fail(layer, "the server did not get every upload byte");
        }
    });

    // Download piece latency, upload first byte and idle latency.
    begin_phase();
    std::vector<double> us[2];
    alternate(2, [&](bool layer) {
        Sink sink;
        sink.records = true;
        download(layer, server.url(fmt("/pieces/%d/%d", pieces / 2, gap_us)), sink);
        for (float ms : sink.delay_ms) {
            us[layer ? 0 : 1].push_back(ms * 1e3);
        }
    });
    result_tails("download_piece_latency", us, "us", fmt(" gap_us=%d", gap_us));

    begin_phase();
    us[0].clear(), us[1].clear();
    alternate(20, [&](bool layer) {
        const int64_t start = now_ns();
        upload(
            layer, server.url("/up"), [&](auto&& push) { push(1024, true); }, true);
        us[layer ? 0 : 1].push_back(static_cast<double>(server.first_byte_ns.load() - start) *
                                    1e-3);
    });
    result("upload_first_byte_p50", quantile(us[0], 0.5), quantile(us[1], 0.5), "us",
           fmt(" uploads=%zu max_layer=%.0f max_raw=%.0f", us[0].size(), quantile(us[0], 1),
               quantile(us[1], 1)));
    begin_phase();
    us[0].clear(), us[1].clear();
    alternate(2, [&](bool layer) {
        upload(layer, server.url("/up"), [&](auto&& push) {
            uint64_t bytes = server.upload_bytes.load();
            for (int i = 0; i <= samples / 2; ++i) {  // the first byte opens the transfer
                const int64_t sent = now_ns();
                push(1, false);
                sleep_ms(20);
                wait_bytes(server, ++bytes, layer);
                if (i > 0) {
                    us[layer ? 0 : 1].push_back((server.last_arrival_ns.load() - sent) * 1e-3);
                }
            }
            push(0, true);
        });
    });
    result_tails("upload_idle_latency", us, "us", " gap_ms=20");
    return 0;
}

// Sequential one-shot GETs against one loopback server: kiv_http_request_maker::execute against
// plain libcurl doing the same work (a fresh easy handle per request, the same options and
// callbacks of the same kind), alternating request by request so that both see the same machine
// state. Prints requests per second for both and their ratio, as medians over the rounds.
//
// Usage: bench_oneshot [rounds=10] [requests_per_round=500]

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "core/utility/Networking/kiv_HttpRequestMaker.h"
#include "core/utility/kiv_log.h"

namespace {

using kiv::Memory::kiv_shared_ptr;
using kiv::Networking::kiv_http_request_maker;
using kiv::Networking::kiv_HttpRequest;
using kiv::Networking::kiv_HttpResponse;
using Clock = std::chrono::steady_clock;

const char kReply[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok";

// Answers every connection with kReply, one connection at a time: the clients are sequential.
// The server closes first, so the TIME_WAIT states pile up on its single port, not on the
// client's ephemeral ports.
class TinyServer {
public:
    TinyServer() {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            listen(fd_, 128) != 0 ||
            getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            perror("server socket");
            exit(1);
        }
        port_ = ntohs(addr.sin_port);
        thread_ = std::thread([this] { serve(); });
    }

    ~TinyServer() {
        stopping_ = true;
        shutdown(fd_, SHUT_RDWR);  // wakes accept()
        thread_.join();
        close(fd_);
    }

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/bench"; }

private:
    void serve() {
        while (!stopping_) {
            int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) {
                continue;
            }
            std::string head;
            char buf[4096];
            while (head.find("\r\n\r\n") == std::string::npos) {
                ssize_t n = recv(client, buf, sizeof buf, 0);
                if (n <= 0) {
                    break;
                }
                head.append(buf, static_cast<size_t>(n));
            }
            if (send(client, kReply, sizeof kReply - 1, MSG_NOSIGNAL) < 0) {
                perror("send");
            }
            close(client);
        }
    }

    int fd_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// The baseline: what execute does, written directly against libcurl.
struct RawState {
    std::string body;
    std::vector<std::string> headers;
    std::atomic<int> cancelled{0};
};

size_t raw_write(char* ptr, size_t size, size_t nmemb, void* userdata) {
    static_cast<RawState*>(userdata)->body.append(ptr, size * nmemb);
    return size * nmemb;
}

size_t raw_header(char* buffer, size_t size, size_t nitems, void* userdata) {
    static_cast<RawState*>(userdata)->headers.emplace_back(buffer, size * nitems);
    return size * nitems;
}

int raw_progress(void* clientp, double, double, double, double) {
    return static_cast<RawState*>(clientp)->cancelled.load() ? 1 : 0;
}

bool raw_get(const std::string& url) {
    RawState state;
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 0L);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &raw_write);
    curl_easy_setopt(curl, CURLOPT_PROGRESSDATA, &state);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    curl_easy_setopt(curl, CURLOPT_PROGRESSFUNCTION, &raw_progress);
#pragma GCC diagnostic pop
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &state);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &raw_header);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &state);
    CURLcode code = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    return code == CURLE_OK && status == 200 && state.body == "ok";
}

bool layer_get(const std::string& url) {
    kiv_shared_ptr<kiv_HttpResponse> response =
        kiv_http_request_maker::execute(kiv_HttpRequest::requestWithUrl(url));
    return response.getPTR() && response->get_http_status() == 200 &&
           response->get_response_len() == 2 &&
           memcmp(response->get_response_data().getPTR(), "ok", 2) == 0;
}

using Getter = bool (*)(const std::string&);

// Seconds one request took; exits on a failed request.
double timed(Getter get, const std::string& url, const char* name) {
    auto start = Clock::now();
    if (!get(url)) {
        fprintf(stderr, "%s: request failed\n", name);
        exit(1);
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? atoi(argv[1]) : 10;
    const int requests = argc > 2 ? atoi(argv[2]) : 500;
    if (rounds < 1 || requests < 1) {
        fprintf(stderr, "usage: %s [rounds] [requests_per_round]\n", argv[0]);
        return 2;
    }
    curl_global_init(CURL_GLOBAL_ALL);
    kiv::set_log_level(2);
    TinyServer server;
    const std::string url = server.url();

    // Warm-up: first-use costs (allocator, libcurl's own) stay out of the measured rounds.
    for (int i = 0; i < 50; ++i) {
        timed(&raw_get, url, "raw warm-up");
        timed(&layer_get, url, "layer warm-up");
    }

    // Within a round the two alternate request by request, the one to go first alternating too,
    // so that load from elsewhere on the machine hits both alike.
    std::vector<double> layer_rates, raw_rates, ratios;
    for (int round = 0; round < rounds; ++round) {
        double layer_seconds = 0, raw_seconds = 0;
        for (int i = 0; i < requests; ++i) {
            if ((i + round) % 2 == 0) {
                layer_seconds += timed(&layer_get, url, "execute");
                raw_seconds += timed(&raw_get, url, "raw libcurl");
            } else {
                raw_seconds += timed(&raw_get, url, "raw libcurl");
                layer_seconds += timed(&layer_get, url, "execute");
            }
        }
        const double layer = requests / layer_seconds;
        const double raw = requests / raw_seconds;
        layer_rates.push_back(layer);
        raw_rates.push_back(raw);
        ratios.push_back(layer / raw);
        printf("round %2d: execute %8.0f req/s   raw libcurl %8.0f req/s   ratio %.3f\n", round + 1,
               layer, raw, layer / raw);
    }
    printf(
        "median over %d rounds of %d GETs: execute %.0f req/s, raw libcurl %.0f req/s, "
        "ratio %.3f\n",
        rounds, requests, median(layer_rates), median(raw_rates), median(ratios));
    curl_global_cleanup();
    return 0;
}

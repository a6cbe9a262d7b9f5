#ifndef KIV_TESTS_STREAMING_FIXTURE_H
#define KIV_TESTS_STREAMING_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "core/EventManager/EventManagerDecChunk.h"
#include "core/utility/Networking/kiv_HttpRequestMaker.h"

namespace kiv {
namespace test {

using kiv::Memory::kiv_shared_ptr;
using kiv::Memory::kiv_shared_ptr_base;
using kiv::Networking::HTTP_REQUEST_ERROR;
using kiv::Networking::kiv_http_request_maker;
using kiv::Networking::kiv_HttpRequest;
using kiv::Networking::kiv_HttpResponse;

// `size` pseudo-random bytes (zeros and high bytes included), the same for the same seed.
inline std::string pattern(size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    std::mt19937 rng(seed);
    for (char& c : bytes) {
        c = static_cast<char>(rng());
    }
    return bytes;
}

// One call of the completion callback, as the caller saw it.
struct Delivery {
    bool final = false;  // a status or a local error: the end of the transfer
    int32_t status = 0;
    HTTP_REQUEST_ERROR error = kiv::Networking::HTTP_REQUEST_OK;
    std::string message;
    std::string body;
    int32_t curlCode = 0;
    std::string curlError;
    std::thread::id thread;
    std::chrono::steady_clock::time_point at;  // when the callback ran
};

// The caller's per-stream object: records every delivery and notices its own destruction,
// which happens once the transfer has released it (the end of the worker's work).
class Recorder : public kiv::EventManagerDecChunk {
public:
    struct Shared {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<Delivery> deliveries;
        bool destroyed = false;
        // Optional hook run on the worker thread inside the callback, with the task.
        std::function<void(kiv_shared_ptr<kiv_http_request_maker>&, const Delivery&)> on_delivery;
    };

    explicit Recorder(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}
    ~Recorder() override {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        shared_->destroyed = true;
        shared_->changed.notify_all();
    }

    // The callback every streaming test installs; the parameter is a kiv_shared_ptr<Recorder>.
    static void callback(kiv_shared_ptr<kiv_http_request_maker>& maker,
                         kiv_shared_ptr<kiv_HttpResponse>& response, kiv_shared_ptr_base* param) {
        kiv_shared_ptr<Recorder> self;
        self.copyControlObject(param);
        ASSERT_NE(self.getPTR(), nullptr);
        ASSERT_NE(maker.getPTR(), nullptr);
        Delivery d;
        d.status = response->get_http_status();
        d.error = response->get_local_request_error();
        d.final = d.status != 0 || d.error != kiv::Networking::HTTP_REQUEST_OK;
        d.message = response->getErrorMessage();
        d.body.assign(response->get_response_data().getPTR(), response->get_response_len());
        d.curlCode = response->get_curl_code();
        d.curlError = response->get_curl_error();
        d.thread = std::this_thread::get_id();
        d.at = std::chrono::steady_clock::now();
        auto& shared = *self->shared_;
        {
            std::lock_guard<std::mutex> lock(shared.mutex);
            shared.deliveries.push_back(d);
            shared.changed.notify_all();
        }
        if (shared.on_delivery) {
            shared.on_delivery(maker, d);
        }
    }

private:
    std::shared_ptr<Shared> shared_;
};

// A streaming exchange under test: the task, its caller object and what it delivered.
class Stream {
public:
    Stream() : shared_(std::make_shared<Recorder::Shared>()) {
        param_ = new Recorder(shared_);
        task_ = kiv_http_request_maker::get_instance();
    }

    void start(const std::string& url, kiv::Networking::HTTP_REQUEST_METHOD method,
               const std::string& origin = "") {
        auto request = kiv_HttpRequest::requestWithUrl(url);
        request->_METHOD = method;
        if (!origin.empty()) {
            request->_origin_URL = origin;
        }
        start(request);
    }

    // Starts a request the test has filled in itself.
    void start(kiv_shared_ptr<kiv_HttpRequest> request) {
        task_->start_request(request, &Recorder::callback, &param_);
    }

    void send(const std::string& bytes, bool last) {
        kiv_shared_ptr<unsigned char> data =
            kiv::Memory::make_shared_array<unsigned char>(bytes.size() + 1);
        memcpy(data.getPTR(), bytes.data(), bytes.size());
        task_->send_data(data, static_cast<long>(bytes.size()), last);
    }

    // Drops the test's own references: from then on only the transfer keeps the objects.
    void release() {
        param_ = static_cast<Recorder*>(nullptr);
        task_ = static_cast<kiv_http_request_maker*>(nullptr);
    }

    // Waits until the transfer has let go of the caller object (after release()).
    bool wait_finished(std::chrono::milliseconds wait = std::chrono::seconds(20)) {
        std::unique_lock<std::mutex> lock(shared_->mutex);
        return shared_->changed.wait_for(lock, wait, [&] { return shared_->destroyed; });
    }

    bool wait_deliveries(size_t count, std::chrono::milliseconds wait = std::chrono::seconds(20)) {
        std::unique_lock<std::mutex> lock(shared_->mutex);
        return shared_->changed.wait_for(lock, wait,
                                         [&] { return shared_->deliveries.size() >= count; });
    }

    // Waits until the pieces delivered so far hold `size` bytes in all: libcurl may hand one
    // server chunk over in several pieces.
    bool wait_body(size_t size, std::chrono::milliseconds wait = std::chrono::seconds(20)) {
        std::unique_lock<std::mutex> lock(shared_->mutex);
        return shared_->changed.wait_for(lock, wait, [&] {
            size_t total = 0;
            for (const Delivery& d : shared_->deliveries) {
                total += d.final ? 0 : d.body.size();
            }
            return total >= size;
        });
    }

    bool wait_final(std::chrono::milliseconds wait = std::chrono::seconds(20)) {
        std::unique_lock<std::mutex> lock(shared_->mutex);
        return shared_->changed.wait_for(lock, wait, [&] {
            return !shared_->deliveries.empty() && shared_->deliveries.back().final;
        });
    }

    std::vector<Delivery> deliveries() {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        return shared_->deliveries;
    }
    std::vector<Delivery> finals() {
        std::vector<Delivery> result;
        for (const Delivery& d : deliveries()) {
            if (d.final) {
                result.push_back(d);
            }
        }
        return result;
    }
    std::string body() {
        std::string all;
        for (const Delivery& d : deliveries()) {
            if (!d.final) {
                all += d.body;
            }
        }
        return all;
    }

    std::shared_ptr<Recorder::Shared>& shared() { return shared_; }
    kiv_shared_ptr<kiv_http_request_maker>& task() { return task_; }

private:
    std::shared_ptr<Recorder::Shared> shared_;
    kiv_shared_ptr<Recorder> param_;
    kiv_shared_ptr<kiv_http_request_maker> task_;
};

}  // namespace test
}  // namespace kiv

#endif

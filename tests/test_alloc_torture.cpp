// Allocation torture: every allocation that libcurl (through curl_global_init_mem) or the layer
// (through operator new) makes on behalf of a transfer is counted, and for N = 1, 2, ... the
// Nth one fails, until a run needs fewer than N. Each run must still end as promised: a one-shot
// request returns a response or an empty pointer, a streaming task makes exactly one final
// delivery, the bytes it delivered are a prefix of what the server sent, every reference is
// released, nothing hangs; LeakSanitizer checks at exit that nothing leaked.
//
// Counted: the test thread while it is inside a call into the layer, and the layer's own threads
// (named "kiv-..."). Not counted: the servers' threads and the test's callback code.

#include <curl/curl.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>

#include "core/EventManager/EventManagerDecChunk.h"
#include "core/utility/Networking/kiv_HttpRequestMaker.h"
#include "tests/support/http_server.h"

namespace torture {

std::atomic<bool> gEnabled{false};
std::atomic<long> gCount{0};
std::atomic<long> gFailAt{0};
std::atomic<long> gFailed{0};
thread_local int tlCaller = 0;  // > 0: the test thread is inside a call into the layer
thread_local int tlExempt = 0;  // > 0: the test's own code on a library thread

bool libraryThread() {
    char name[16] = {0};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return strncmp(name, "kiv-", 4) == 0;
}

bool failThisOne() {
    if (!gEnabled.load(std::memory_order_relaxed) || tlExempt > 0) {
        return false;
    }
    if (tlCaller == 0 && !libraryThread()) {
        return false;
    }
    if (gCount.fetch_add(1) + 1 == gFailAt.load()) {
        gFailed.fetch_add(1);
        if (getenv("TORTURE_TRACE")) {  // where a failing allocation was, for debugging
            void* frames[32];
            backtrace_symbols_fd(frames, backtrace(frames, 32), 2);
        }
        return true;
    }
    return false;
}

struct Caller {
    Caller() { ++tlCaller; }
    ~Caller() { --tlCaller; }
};
struct Exempt {
    Exempt() { ++tlExempt; }
    ~Exempt() { --tlExempt; }
};

void* curlMalloc(size_t size) {
    return failThisOne() ? nullptr : malloc(size);
}
void curlFree(void* p) {
    free(p);
}
void* curlRealloc(void* p, size_t size) {
    return failThisOne() ? nullptr : realloc(p, size);
}
char* curlStrdup(const char* s) {
    return failThisOne() ? nullptr : strdup(s);
}
void* curlCalloc(size_t count, size_t size) {
    return failThisOne() ? nullptr : calloc(count, size);
}

void* allocate(size_t size) {
    if (failThisOne()) {
        throw std::bad_alloc();
    }
    void* p = malloc(size ? size : 1);
    if (!p) {
        throw std::bad_alloc();
    }
    return p;
}

}  // namespace torture

void* operator new(size_t size) {
    return torture::allocate(size);
}
void* operator new[](size_t size) {
    return torture::allocate(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    try {
        return torture::allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    try {
        return torture::allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* p) noexcept {
    free(p);
}
void operator delete[](void* p) noexcept {
    free(p);
}
void operator delete(void* p, size_t) noexcept {
    free(p);
}
void operator delete[](void* p, size_t) noexcept {
    free(p);
}

namespace {

using kiv::Memory::kiv_shared_ptr;
using kiv::Memory::kiv_shared_ptr_base;
using namespace kiv::Networking;
using namespace kiv::test;
using std::chrono::seconds;

const std::string kBody = std::string(3000, 'a') + std::string(3000, 'b') + "end";

// The caller's object: what was delivered, and when the layer let go of it.
class Record : public kiv::EventManagerDecChunk {
public:
    struct Shared {
        std::mutex mutex;
        std::condition_variable changed;
        std::string body;
        int finals = 0;
        bool success = false;
        bool gone = false;
    };
    explicit Record(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}
    ~Record() override {
        torture::Exempt exempt;
        std::lock_guard<std::mutex> lock(shared_->mutex);
        shared_->gone = true;
        shared_->changed.notify_all();
    }

    static void callback(kiv_shared_ptr<kiv_http_request_maker>&,
                         kiv_shared_ptr<kiv_HttpResponse>& response, kiv_shared_ptr_base* param) {
        torture::Exempt exempt;
        kiv_shared_ptr<Record> self;
        self.copyControlObject(param);
        Shared& s = *self->shared_;
        std::lock_guard<std::mutex> lock(s.mutex);
        const int32_t status = response->get_http_status();
        const HTTP_REQUEST_ERROR error = response->get_local_request_error();
        if (status == 0 && error == HTTP_REQUEST_OK) {
            s.body.append(response->get_response_data().getPTR(), response->get_response_len());
        } else {
            ++s.finals;
            s.success = status == 200;
        }
        s.changed.notify_all();
    }

private:
    std::shared_ptr<Shared> shared_;
};

enum class Kind { kOneShot, kUpload, kDownload };

// One run of a transfer of `kind`; false (with a message) when a promise broke.
bool runOnce(Kind kind, const std::string& url, std::string* why) {
    if (kind == Kind::kOneShot) {
        auto request = kiv_HttpRequest::requestWithUrl(url);
        kiv_shared_ptr<kiv_HttpResponse> response;
        {
            torture::Caller caller;
            response = kiv_http_request_maker::execute(request);
        }
        if (response.getPTR() && response->get_http_status() == 200) {
            const std::string body(response->get_response_data().getPTR(),
                                   response->get_response_len());
            if (body != kBody) {
                *why = "a successful one-shot response lost bytes";
                return false;
            }
        }
        return true;
    }
    auto shared = std::make_shared<Record::Shared>();
    kiv_shared_ptr<Record> param(new Record(shared));
    auto request = kiv_HttpRequest::requestWithUrl(url);
    request->_METHOD =
        kind == Kind::kUpload ? HTTP_REQUEST_METHOD_CHUNK_UP : HTTP_REQUEST_METHOD_CHUNK_DOWN;
    kiv_shared_ptr<unsigned char> piece = kiv::Memory::make_shared_array<unsigned char>(2000);
    memset(piece.getPTR(), 'u', 2000);
    kiv_shared_ptr<kiv_http_request_maker> task;
    {
        torture::Caller caller;
        task = kiv_http_request_maker::get_instance();
        if (!task.getPTR()) {
            return true;  // no memory for a task: refused up front, nothing started
        }
        task->start_request(request, &Record::callback, &param);
        if (kind == Kind::kUpload) {
            for (int i = 0; i < 3; ++i) {
                task->send_data(piece, 2000, i == 2);
            }
        }
    }
    param = static_cast<Record*>(nullptr);
    task = static_cast<kiv_http_request_maker*>(nullptr);
    std::unique_lock<std::mutex> lock(shared->mutex);
    if (!shared->changed.wait_for(lock, seconds(20), [&] { return shared->gone; })) {
        *why = "the transfer never let go of the caller's object (a hang or a leaked reference)";
        return false;
    }
    if (shared->finals != 1) {
        *why = std::to_string(shared->finals) + " final deliveries";
        return false;
    }
    if (kBody.compare(0, shared->body.size(), shared->body) != 0 ||
        (kind == Kind::kDownload && shared->success && shared->body != kBody)) {
        *why = "delivered bytes are not what the server sent";
        return false;
    }
    return true;
}

// Fails the 1st, 2nd, ... counted allocation until a run makes fewer; returns the runs made.
int torture(Kind kind, const std::string& url) {
    int runs = 0;
    const char* from = getenv("TORTURE_FROM");
    for (long n = from ? atol(from) : 1; n < 20000; ++n) {
        torture::gCount = 0;
        torture::gFailed = 0;
        torture::gFailAt = n;
        torture::gEnabled = true;
        std::string why;
        const bool kept = runOnce(kind, url, &why);
        torture::gEnabled = false;
        ++runs;
        EXPECT_TRUE(kept) << "allocation " << n << " failed: " << why;
        if (!kept || torture::gFailed.load() == 0) {
            break;
        }
    }
    printf("%d runs, the last without a failed allocation\n", runs);
    return runs;
}

class AllocationTorture : public testing::Test {
protected:
    AllocationTorture() {
        server.on("/body", [](const ReceivedRequest&) { return Reply::text(kBody); });
        server.on("/up", [](const ReceivedRequest&) { return Reply::text("ok"); });
        server.on("/down", [](const ReceivedRequest&) {
            auto queue = std::make_shared<PieceQueue>();
            for (size_t at = 0; at < kBody.size(); at += 3000) {
                queue->push(kBody.substr(at, 3000));
            }
            queue->close();
            return Reply::streamed(queue);
        });
        // Warm up outside the count: the pool and its first workers, the timer thread.
        std::string why;
        EXPECT_TRUE(runOnce(Kind::kDownload, server.url("/down"), &why)) << why;
    }
    HttpServer server;
};

TEST_F(AllocationTorture, OneShotGet) {
    const int runs = torture(Kind::kOneShot, server.url("/body"));
    RecordProperty("runs", runs);
    EXPECT_GT(runs, 10);
}

TEST_F(AllocationTorture, ChunkedUpload) {
    const int runs = torture(Kind::kUpload, server.url("/up"));
    RecordProperty("runs", runs);
    EXPECT_GT(runs, 10);
}

TEST_F(AllocationTorture, ChunkedDownload) {
    const int runs = torture(Kind::kDownload, server.url("/down"));
    RecordProperty("runs", runs);
    EXPECT_GT(runs, 10);
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    curl_global_init_mem(CURL_GLOBAL_ALL, &torture::curlMalloc, &torture::curlFree,
                         &torture::curlRealloc, &torture::curlStrdup, &torture::curlCalloc);
    testing::InitGoogleTest(&argc, argv);
    int result = RUN_ALL_TESTS();
    curl_global_cleanup();
    return result;
}

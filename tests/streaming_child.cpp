// A child process for the streaming tests that need a process of their own: process exit with
// transfers in flight, fork(), a pool that cannot start workers, a transfer that never runs.
// Exit status 0 means every check passed; anything else (a sanitizer report included) fails.
//
//   streaming_child exit URL_DOWN URL_UP LOG_PATH
//   streaming_child never-run URL_UP
//   streaming_child no-worker URL_DOWN
//   streaming_child fork URL_DOWN

#include <curl/curl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "core/EventManager/EventManagerDecChunk.h"
#include "core/utility/Networking/kiv_HttpRequestMaker.h"
#include "core/utility/Threads/GlobalThreadPool.h"
#include "core/utility/kiv_log.h"

namespace {

using kiv::Memory::kiv_shared_ptr;
using kiv::Memory::kiv_shared_ptr_base;
using namespace kiv::Networking;

// Destroyed after every other static of the process (the highest priority is built first and
// destroyed last): the workers keep going while the rest of static destruction runs.
struct LingerAtExit {
    ~LingerAtExit() { std::this_thread::sleep_for(std::chrono::milliseconds(300)); }
};
__attribute__((init_priority(101))) LingerAtExit gLinger;

// Everything the callbacks touch is trivially destructible, so it is still valid while the
// process exits.
std::atomic<int> gPieces{0};
std::atomic<int> gFinals{0};
std::atomic<int> gErrors{0};
std::atomic<int> gOnCaller{0};
std::thread::id gMainThread;

void onDelivery(kiv_shared_ptr<kiv_http_request_maker>&, kiv_shared_ptr<kiv_HttpResponse>& response,
                kiv_shared_ptr_base*) {
    if (response->get_http_status() == 0 &&
        response->get_local_request_error() == HTTP_REQUEST_OK) {
        gPieces.fetch_add(1);
        return;
    }
    gFinals.fetch_add(1);
    if (response->get_local_request_error() == HTTP_REQUEST_CHUNK_REQ_ERROR) {
        gErrors.fetch_add(1);
    }
    if (std::this_thread::get_id() == gMainThread) {
        gOnCaller.fetch_add(1);
    }
}

struct Caller : kiv::EventManagerDecChunk {};

kiv_shared_ptr<kiv_http_request_maker> start(const char* url, HTTP_REQUEST_METHOD method) {
    auto task = kiv_http_request_maker::get_instance();
    auto request = kiv_HttpRequest::requestWithUrl(url);
    request->_METHOD = method;
    kiv_shared_ptr<Caller> caller(new Caller);
    task->start_request(request, &onDelivery, &caller);
    return task;
}

template <typename Pred>
bool waitFor(Pred pred, int seconds = 20) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void sendForever(kiv_shared_ptr<kiv_http_request_maker> task) {
    kiv_shared_ptr<unsigned char> bytes = kiv::Memory::make_shared_array<unsigned char>(640);
    memset(bytes.getPTR(), 'a', 640);
    for (;;) {
        task->send_data(bytes, 640, false);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Downloads and uploads in flight, logging at level 5 into a small rotating file, while main
// returns and static destruction runs.
int exitWithTransfersInFlight(const char* down, const char* up, const char* log) {
    kiv::set_log_level(5);
    kiv::LogFile::open_log_file(log, 16 * 1024);
    for (int i = 0; i < 8; ++i) {
        start(down, HTTP_REQUEST_METHOD_CHUNK_DOWN);
        std::thread(sendForever, start(up, HTTP_REQUEST_METHOD_CHUNK_UP)).detach();
    }
    if (!waitFor([] { return gPieces.load() >= 8; })) {
        return 3;
    }
    return 0;
}

// A transfer queued behind a busy worker when the process ends: the pool releases it unrun, and
// its libcurl handle must go with it (LeakSanitizer checks).
int neverRun(const char* up) {
    kiv::Threads::GlobalThreadPool::GLOBAL_POOL_THREAD_COUNT = 1;
    kiv::Threads::GlobalThreadPool::MAX_POOL_THREAD_COUNT = 1;
    auto busy = start(up, HTTP_REQUEST_METHOD_CHUNK_UP);  // its reader waits for audio forever
    auto queued = start(up, HTTP_REQUEST_METHOD_CHUNK_UP);
    kiv_shared_ptr<unsigned char> none;
    queued->send_data(none, 0, true);
    return 0;
}

// No worker thread can be made: the start still ends with one error delivery, on this thread.
int noWorker(const char* down) {
    kiv::Threads::GlobalThreadPool::GLOBAL_POOL_THREAD_COUNT = 1;
    kiv::Threads::GlobalThreadPool::WORKER_STACK_BYTES = size_t(1) << 40;
    for (int i = 0; i < 3; ++i) {
        start(down, HTTP_REQUEST_METHOD_CHUNK_DOWN);
    }
    return gFinals.load() == 3 && gErrors.load() == 3 && gOnCaller.load() == 3 ? 0 : 4;
}

// A download in a child made by fork() after the pool has run transfers here.
int forkedChildDownloads(const char* down) {
    start(down, HTTP_REQUEST_METHOD_CHUNK_DOWN);
    if (!waitFor([] { return gFinals.load() == 1; })) {
        return 5;
    }
    pid_t pid = fork();
    if (pid == 0) {
        gFinals = 0;
        start(down, HTTP_REQUEST_METHOD_CHUNK_DOWN);
        _exit(waitFor([] { return gFinals.load() == 1 && gPieces.load() > 0; }, 10) ? 0 : 6);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) {
        return 7;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    curl_global_init(CURL_GLOBAL_ALL);
    gMainThread = std::this_thread::get_id();
    const std::string mode = argc > 2 ? argv[1] : "";
    if (mode == "exit" && argc == 5) {
        return exitWithTransfersInFlight(argv[2], argv[3], argv[4]);
    }
    if (mode == "never-run") {
        return neverRun(argv[2]);
    }
    if (mode == "no-worker") {
        return noWorker(argv[2]);
    }
    if (mode == "fork") {
        return forkedChildDownloads(argv[2]);
    }
    fprintf(stderr, "usage: streaming_child exit|never-run|no-worker|fork URL...\n");
    return 2;
}

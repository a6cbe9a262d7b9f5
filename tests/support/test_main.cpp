#include <curl/curl.h>
#include <gtest/gtest.h>

#include <csignal>

// libcurl's global state must exist before any thread makes a handle.
int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    curl_global_init(CURL_GLOBAL_ALL);
    testing::InitGoogleTest(&argc, argv);
    int result = RUN_ALL_TESTS();
    curl_global_cleanup();
    return result;
}

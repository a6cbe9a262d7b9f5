#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "core/utility/Networking/kiv_HttpRequest.h"
#include "core/utility/Networking/kiv_HttpResponse.h"

using kiv::Memory::kiv_shared_ptr;
using namespace kiv::Networking;

TEST(HttpResponseTest, StartsEmptyAndAppendsInOrder) {
    kiv_shared_ptr<kiv_HttpResponse> response = kiv_HttpResponse::alloc();
    EXPECT_EQ(response->get_http_status(), 0);
    EXPECT_EQ(response->get_local_request_error(), HTTP_REQUEST_OK);
    EXPECT_EQ(response->getErrorMessage(), "");
    EXPECT_TRUE(response->getResponseHeaders()->empty());
    EXPECT_EQ(response->get_response_len(), 0u);
    EXPECT_EQ(response->get_response_data_len(), 1u);
    ASSERT_NE(response->get_response_data().getPTR(), nullptr);
    EXPECT_EQ(response->get_response_data().getPTR()[0], '\0');

    response->receive_new_data("abc", 3);
    response->receive_new_data("\0e", 2);
    ASSERT_EQ(response->get_response_len(), 5u);
    kiv_shared_ptr<char> body = response->get_response_data();
    EXPECT_EQ(0, memcmp(body.getPTR(), "abc\0e\0", 6));

    // The share of the body outlives the response.
    response = static_cast<kiv_HttpResponse*>(nullptr);
    EXPECT_EQ(0, memcmp(body.getPTR(), "abc\0e\0", 6));
}

TEST(HttpResponseTest, GrowsAcrossManyPiecesWithoutLosingBytes) {
    kiv_shared_ptr<kiv_HttpResponse> response = kiv_HttpResponse::alloc();
    std::string expected;
    char piece[997];
    for (int i = 0; i < 300; ++i) {
        size_t len = static_cast<size_t>(i * 7 % sizeof piece);
        for (size_t j = 0; j < len; ++j) {
            piece[j] = static_cast<char>('a' + (i + j) % 26);
        }
        response->receive_new_data(piece, static_cast<uint32_t>(len));
        expected.append(piece, len);
    }
    ASSERT_EQ(response->get_response_len(), expected.size());
    EXPECT_EQ(0, memcmp(response->get_response_data().getPTR(), expected.data(), expected.size()));
    EXPECT_EQ(response->get_response_data().getPTR()[expected.size()], '\0');
}

TEST(HttpResponseTest, HeaderMapKeepsOneValuePerExactName) {
    kiv_shared_ptr<kiv_HttpResponse> response = kiv_HttpResponse::alloc();
    response->setResponseHeader("X-A", "1");
    response->setResponseHeader("X-A", "2");
    response->setResponseHeader("x-a", "3");
    ASSERT_EQ(response->getResponseHeaders()->size(), 2u);
    EXPECT_EQ(response->getResponseHeaders()->at("X-A"), "2");
    EXPECT_EQ(response->getResponseHeaders()->at("x-a"), "3");
}

TEST(HttpRequestTest, FactoriesFillBothUrlFormsAndDefaults) {
    kiv_shared_ptr<kiv_HttpRequest> request = kiv_HttpRequest::requestWithUrl("http://h/p");
    EXPECT_STREQ(request->_URL.getPTR(), "http://h/p");
    EXPECT_EQ(request->_origin_URL, "http://h/p");
    EXPECT_EQ(request->_METHOD, HTTP_REQUEST_METHOD_GET);
    EXPECT_EQ(request->_TIMEOUT_MS, 0);
    EXPECT_EQ(request->_BODY_LENGTH, 0);
    EXPECT_EQ(request->_BODY_DATA.getPTR(), nullptr);
    EXPECT_TRUE(request->_HEADER_LIST.empty());

    kiv_shared_ptr<char> text = kiv::Memory::make_shared_array<char>(4);
    memcpy(text.getPTR(), "abc", 4);
    kiv_shared_ptr<kiv_HttpRequest> shared = kiv_HttpRequest::requestWithUrl(text);
    EXPECT_EQ(shared->_URL.getPTR(), text.getPTR());
    EXPECT_EQ(shared->_origin_URL, "abc");
    kiv_shared_ptr<kiv_HttpRequest> none = kiv_HttpRequest::requestWithUrl(kiv_shared_ptr<char>());
    EXPECT_EQ(none->_URL.getPTR(), nullptr);
    EXPECT_EQ(none->_origin_URL, "");
}

TEST(HttpRequestTest, CancelIsSeenFromOtherThreadsAndStays) {
    kiv_shared_ptr<kiv_HttpRequest> request = kiv_HttpRequest::requestWithUrl("http://h/");
    EXPECT_EQ(request->isCancelled(), 0);
    std::thread canceller([request] { request->cancel(); });
    canceller.join();
    std::thread reader([request] { EXPECT_NE(request->isCancelled(), 0); });
    reader.join();
    request->cancel();
    EXPECT_NE(request->isCancelled(), 0);
}

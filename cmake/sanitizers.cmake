# Warnings and sanitizers for this project's own targets only, so that a parent project that
# pulls the library in with add_subdirectory keeps its own flags.
add_library(kiv_http_build_flags INTERFACE)
target_compile_options(kiv_http_build_flags INTERFACE -Wall -Wextra)
if(KIV_HTTP_WERROR)
    target_compile_options(kiv_http_build_flags INTERFACE -Werror)
endif()
# clang proves the lock annotations (core/utility/thread_annotations.h) on every build.
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(kiv_http_build_flags INTERFACE -Wthread-safety)
endif()

if(KIV_HTTP_BUILD_FUZZERS)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "KIV_HTTP_BUILD_FUZZERS needs clang (CC=clang CXX=clang++)")
    endif()
    if(NOT KIV_HTTP_SANITIZE STREQUAL "")
        message(FATAL_ERROR "KIV_HTTP_BUILD_FUZZERS brings its own sanitizers: leave "
                            "KIV_HTTP_SANITIZE empty")
    endif()
    # Coverage instrumentation without libFuzzer's main: the fuzz targets link that themselves.
    set(kiv_sanitize_flags -fsanitize=fuzzer-no-link,address,undefined
        -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(KIV_HTTP_SANITIZE STREQUAL "address")
    set(kiv_sanitize_flags -fsanitize=address,undefined -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
elseif(KIV_HTTP_SANITIZE STREQUAL "thread")
    set(kiv_sanitize_flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT KIV_HTTP_SANITIZE STREQUAL "")
    message(FATAL_ERROR "KIV_HTTP_SANITIZE must be empty, 'address' or 'thread'")
endif()
if(kiv_sanitize_flags)
    target_compile_options(kiv_http_build_flags INTERFACE ${kiv_sanitize_flags})
    target_link_options(kiv_http_build_flags INTERFACE ${kiv_sanitize_flags})
endif()

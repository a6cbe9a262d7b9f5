// kiv-http: the transport layer on the command line, and a live speech-streaming demo.

#include <curl/curl.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "core/utility/kiv_log.h"
#include "tools/cli/commands.h"

namespace {

struct LogOptions {
    int level = -1;  // not given: see main()
    std::string file;
};

// Every subcommand takes the log options, so they can follow the subcommand's own arguments.
void add_log_options(CLI::App* command, LogOptions* log) {
    command->add_option("--log-level", log->level,
                        "the library's log lines: 2 errors, 5 debug, 6 trace (default: none for "
                        "get, post, upload and download, which report failures themselves; 2 "
                        "otherwise)");
    command->add_option("--log-file", log->file, "append the log to this file (default: stderr)");
}

// Time limits: a number, never negative (seconds may have a fraction, as curl's --max-time).
std::string check_limit(const std::string& text, bool fraction) {
    char* end = nullptr;
    const double value = strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !(value >= 0 && value <= 1e9) ||
        (!fraction && value != static_cast<double>(static_cast<long>(value)))) {
        return std::string("want ") + (fraction ? "seconds" : "whole milliseconds") +
               ", 0 or more, not " + text;
    }
    return std::string();
}

}  // namespace

int run(int argc, char** argv) {
    using namespace kiv::cli;
    signal(SIGPIPE, SIG_IGN);

    CLI::App app{"kiv-http: HTTP transport of the speech client, and a live streaming demo"};
    app.require_subcommand(1);
    // One line for bad arguments; the exit status is ours (1), not the parser's.
    app.failure_message([](const CLI::App*, const CLI::Error& e) {
        return "kiv-http: " + std::string(e.what()) + " (see --help)\n";
    });
    LogOptions log;

    OneShotOptions get_options;
    CLI::App* get = app.add_subcommand("get",
                                       "one-shot GET; exit 0 for 2xx, 2 for another "
                                       "status, 3 for a local error, 1 for bad arguments");
    get->add_option("url", get_options.url, "URL")->required();
    get->add_flag("-I,--head", get_options.head_only, "send HEAD and print the response head");

    OneShotOptions post_options;
    CLI::App* post = app.add_subcommand("post", "one-shot POST; exit codes as for get");
    post->add_option("url", post_options.url, "URL")->required();
    CLI::Option* data =
        post->add_option("-d,--data", post_options.data,
                         "body text, or @FILE or @- (stdin) with CR and LF dropped, as curl does");
    CLI::Option* data_binary = post->add_option("--data-binary", post_options.data_binary,
                                                "body text, or @FILE or @- (stdin), as it is");
    data->excludes(data_binary);

    for (auto pair : {std::make_pair(get, &get_options), std::make_pair(post, &post_options)}) {
        CLI::App* command = pair.first;
        OneShotOptions* options = pair.second;
        command->add_option("-H,--header", options->headers, "'Name: value' (repeatable)");
        CLI::Option* timeout_ms =
            command
                ->add_option("--timeout-ms", options->timeout_ms,
                             "limit for the whole transfer, in milliseconds (0: none)")
                ->check(CLI::Validator([](std::string& text) { return check_limit(text, false); },
                                       "MS"));
        command
            ->add_option("-m,--max-time", options->max_time,
                         "limit for the whole transfer, in seconds (0: none)")
            ->check(CLI::Validator([](std::string& text) { return check_limit(text, true); },
                                   "SECONDS"))
            ->excludes(timeout_ms);
        command->add_option("-o,--output", options->output,
                            "write the body (and with -i the head) to this file, not stdout");
        command->add_flag("-i,--include", options->include_head,
                          "print the response head, as received, before the body");
        command->add_flag("-v,--verbose", options->verbose,
                          "show the request and response heads on stderr");
        command->add_flag("-s,--silent", options->silent, "no progress meter; errors only");
        command->add_flag("-L,--location", options->follow, "follow redirects (up to 50)");
        command->add_option("-X,--request", options->method,
                            "send this method instead of GET or POST");
    }

    StreamOptions upload_options;
    CLI::App* upload = app.add_subcommand(
        "upload", "stream FILE gzip-compressed as a chunked upload and print the server's answer");
    upload->add_option("url", upload_options.url, "URL")->required();
    upload->add_option("file", upload_options.file, "file to send (16 kHz PCM for --realtime)")
        ->required()
        ->check(CLI::ExistingFile);
    upload->add_option("--origin-url", upload_options.origin_url,
                       "host-name form of an HTTPS URL written with an IP (host pinning)");
    upload->add_flag("--realtime", upload_options.realtime,
                     "pace frames as 16 kHz 16-bit mono audio in real time");
    upload->add_option("--frame-ms", upload_options.frame_ms, "frame length in milliseconds")
        ->capture_default_str()
        ->check(CLI::Range(1, 10000));
    upload->add_flag("-L,--location", upload_options.follow,
                     "refused: an upload never follows redirects (its body is sent once)");

    StreamOptions download_options;
    CLI::App* download = app.add_subcommand(
        "download", "chunked download: print each piece to stdout the moment it arrives");
    download->add_option("url", download_options.url, "URL")->required();
    download->add_option("--origin-url", download_options.origin_url,
                         "host-name form of an HTTPS URL written with an IP (host pinning)");
    for (auto pair :
         {std::make_pair(upload, &upload_options), std::make_pair(download, &download_options)}) {
        pair.first->add_flag("-s,--silent", pair.second->silent,
                             "no progress or summary; errors only");
    }

    ServeOptions serve_options;
    CLI::App* serve = app.add_subcommand("serve", "run the embedded recognition server");
    serve->add_option("--listen", serve_options.listen, "ADDRESS:PORT (loopback by default)")
        ->capture_default_str();
    serve->add_flag("--https", serve_options.https, "serve HTTPS");
    serve->add_option("--cert", serve_options.cert, "PEM certificate file (with --https)");
    serve->add_option("--key", serve_options.key, "PEM private key file (with --https)");

    DemoOptions demo_options;
    CLI::App* demo = app.add_subcommand(
        "demo",
        "speak sentences to the embedded server over a streaming upload and show the "
        "results streaming back");
    demo->add_option("--text", demo_options.texts, "a sentence to speak (repeatable)");
    demo->add_option("--wav", demo_options.wav, "a 16 kHz mono 16-bit WAV file instead")
        ->check(CLI::ExistingFile);
    demo->add_flag("--fast", demo_options.fast, "send audio as fast as possible");
    demo->add_flag("--https", demo_options.https,
                   "HTTPS on 127.0.0.2:443 through host pinning (needs root)");

    for (CLI::App* command : {get, post, upload, download, serve, demo}) {
        add_log_options(command, &log);
    }
    // Certificates are verified against the system's CA store unless told otherwise, as curl does.
    for (auto pair :
         {std::make_pair(get, &get_options.tls), std::make_pair(post, &post_options.tls),
          std::make_pair(upload, &upload_options.tls),
          std::make_pair(download, &download_options.tls)}) {
        pair.first->add_flag("-k,--insecure", pair.second->insecure,
                             "do not verify the server's certificate");
        pair.first->add_option("--cacert", pair.second->cacert,
                               "verify against the CA certificates in this PEM file");
        pair.first->add_option("--pinnedpubkey", pair.second->pinned_key,
                               "sha256//<base64>: the server's public key must match");
    }

    try {
        app.parse(argc, argv);
        if (*post && !*data && !*data_binary) {
            throw CLI::RequiredError("--data or --data-binary");
        }
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? kExitOk : kExitUsage;  // --help exits 0
    }

    // The client subcommands say why they failed in their own line, libcurl's reason included.
    const bool client = *get || *post || *upload || *download;
    kiv::set_log_level(log.level >= 0 ? log.level : client ? 0 : 2);
    if (!log.file.empty()) {
        kiv::LogFile::open_log_file(log.file.c_str(), 0);
    }
    curl_global_init(CURL_GLOBAL_ALL);

    int status = kExitUsage;
    if (*get) {
        status = run_get(get_options);
    } else if (*post) {
        status = run_post(post_options);
    } else if (*upload) {
        status = run_upload(upload_options);
    } else if (*download) {
        status = run_download(download_options);
    } else if (*serve) {
        status = run_serve(serve_options);
    } else if (*demo) {
        status = run_demo(demo_options);
    }
    kiv::LogFile::close_log_file();
    return status;
}

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        // Out of memory, mostly: one reason line, like every other failure.
        fprintf(stderr, "kiv-http: %s\n", e.what());
        return kiv::cli::kExitLocalError;
    }
}

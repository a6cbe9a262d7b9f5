#ifndef KIV_TOOLS_CLI_COMMANDS_H
#define KIV_TOOLS_CLI_COMMANDS_H

#include <string>
#include <vector>

#include "tools/cli/stream_client.h"

namespace kiv {
namespace cli {

// Exit statuses of kiv-http.
enum ExitStatus {
    kExitOk = 0,          // a 2xx answer (or the demo/server ran as asked)
    kExitUsage = 1,       // bad arguments or an unreadable input file
    kExitHttpError = 2,   // the server's final answer has a status outside 200-299
    kExitLocalError = 3,  // no answer (connect, TLS, time limit, stream failure), or the
                          // output could not be written
};

// get and post, with curl's flags.
struct OneShotOptions {
    std::string url;
    // -d: the body text, or @FILE / @- (standard input), whose CR and LF are dropped as curl
    // does; --data-binary: the same, sent byte for byte.
    std::string data;
    std::string data_binary;
    std::vector<std::string> headers;
    long timeout_ms = 0;        // --timeout-ms; 0: no limit
    double max_time = 0;        // --max-time, in seconds; 0: no limit
    std::string method;         // -X: sent instead of GET/POST
    std::string output;         // -o: the body goes to this file instead of stdout
    bool include_head = false;  // -i: the response head, as received, before the body
    bool head_only = false;     // -I: a HEAD request, its head printed
    bool verbose = false;       // -v: request and response heads and libcurl's notes on stderr
    bool silent = false;        // -s: no progress meter, only errors on stderr
    bool follow = false;        // -L: follow redirects
    TlsOptions tls;
};

// upload and download.
struct StreamOptions {
    std::string url;
    std::string origin_url;
    std::string file;
    bool realtime = false;
    int frame_ms = 40;
    bool silent = false;  // -s: no progress or summary, only errors
    bool follow = false;  // -L on upload: refused, a streamed body is never sent twice
    TlsOptions tls;
};

struct ServeOptions {
    std::string listen = "127.0.0.1:8080";
    bool https = false;
    std::string cert;
    std::string key;
};

struct DemoOptions {
    std::vector<std::string> texts;
    std::string wav;
    bool fast = false;
    bool https = false;
};

int run_get(const OneShotOptions& options);
int run_post(const OneShotOptions& options);
int run_upload(const StreamOptions& options);
int run_download(const StreamOptions& options);
int run_serve(const ServeOptions& options);
int run_demo(const DemoOptions& options);

// Progress lines go to a terminal only; otherwise one summary line per unit of work.
bool stderr_is_terminal();

}  // namespace cli
}  // namespace kiv

#endif

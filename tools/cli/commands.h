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
    kExitHttpError = 2,   // the server answered with a status outside 200-299
    kExitLocalError = 3,  // no answer: connect, TLS, time limit, cancel, stream failure
};

struct OneShotOptions {
    std::string url;
    std::string data;  // POST body, or "@path" to read it from a file
    std::vector<std::string> headers;
    long timeout_ms = 0;
    bool include_head = false;
    TlsOptions tls;
};

struct StreamOptions {
    std::string url;
    std::string origin_url;
    std::string file;
    bool realtime = false;
    int frame_ms = 40;
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

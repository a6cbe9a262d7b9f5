#include "tools/server/speech.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

extern char** environ;

namespace kiv {
namespace demo {

namespace {

void set_error(std::string* error, const std::string& text) {
    if (error) {
        *error = text;
    }
}

// A private directory for one synthesis; removed with its files when it goes out of scope.
class ScratchDir {
public:
    ScratchDir() {
        // The program never changes its environment, so reading it is safe on any thread.
        const char* base = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe)
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/kiv-tts-XXXXXX";
        if (mkdtemp(&pattern[0])) {
            path_ = pattern;
        }
    }
    ~ScratchDir() {
        if (!path_.empty()) {
            for (const char* name : {"text.txt", "voice.wav", "16k.wav"}) {
                unlink(file(name).c_str());
            }
            rmdir(path_.c_str());
        }
    }
    bool ok() const { return !path_.empty(); }
    std::string file(const char* name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Runs a program found on PATH with its output silenced; returns its exit status, or -1 with
// `error` set when it could not be started or did not exit normally.
int run_program(const std::vector<std::string>& args, std::string* error) {
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (const std::string& a : args) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        set_error(error, "cannot run " + args[0] + ": " + std::system_category().message(rc));
        return -1;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            set_error(error,
                      "cannot wait for " + args[0] + ": " + std::system_category().message(errno));
            return -1;
        }
    }
    if (!WIFEXITED(status)) {
        set_error(error, args[0] + " did not exit normally");
        return -1;
    }
    // posix_spawnp reports a missing program as exit status 127 from the child on glibc.
    if (WEXITSTATUS(status) == 127) {
        set_error(error, "cannot run " + args[0] + " (is it installed?)");
        return -1;
    }
    return WEXITSTATUS(status);
}

uint32_t le32(const unsigned char* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint16_t le16(const unsigned char* p) {
    return uint16_t(p[0] | p[1] << 8);
}

void put32(std::string& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
    }
}
void put16(std::string& out, uint16_t v) {
    out.push_back(static_cast<char>(v & 0xff));
    out.push_back(static_cast<char>(v >> 8));
}

}  // namespace

std::vector<int16_t> synthesize(const std::string& text, std::string* error, const Voice& voice) {
    ScratchDir dir;
    if (!dir.ok()) {
        set_error(error, std::string("cannot make a temporary directory: ") +
                             std::system_category().message(errno));
        return {};
    }
    const std::string text_path = dir.file("text.txt");
    {
        std::ofstream out(text_path, std::ios::binary);
        out << text;
        if (!out) {
            set_error(error, "cannot write " + text_path);
            return {};
        }
    }
    const std::string voice_path = dir.file("voice.wav");
    int rc =
        run_program({"espeak-ng", "-v", voice.name, "-s", std::to_string(voice.words_per_minute),
                     "-w", voice_path, "-f", text_path},
                    error);
    if (rc != 0) {
        if (rc > 0) {
            set_error(error, "espeak-ng failed with status " + std::to_string(rc));
        }
        return {};
    }
    const std::string pcm_path = dir.file("16k.wav");
    rc = run_program({"sox", "-q", voice_path, "-r", std::to_string(kSampleRate), "-c", "1", "-b",
                      "16", "-e", "signed-integer", pcm_path},
                     error);
    if (rc != 0) {
        if (rc > 0) {
            set_error(error, "sox failed with status " + std::to_string(rc));
        }
        return {};
    }
    std::string read_error;
    std::vector<int16_t> samples = read_wav16k(pcm_path, &read_error);
    if (samples.empty()) {
        set_error(error, read_error.empty() ? "espeak-ng produced no audio" : read_error);
    }
    return samples;
}

std::vector<int16_t> read_wav16k(const std::string& path, std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        set_error(error, "cannot open " + path);
        return {};
    }
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const size_t size = bytes.size();
    if (size < 12 || std::memcmp(p, "RIFF", 4) != 0 || std::memcmp(p + 8, "WAVE", 4) != 0) {
        set_error(error, path + ": not a RIFF/WAVE file");
        return {};
    }
    bool have_fmt = false;
    size_t pos = 12;
    while (pos + 8 <= size) {
        const unsigned char* chunk = p + pos;
        const uint32_t declared = le32(chunk + 4);
        const size_t body = pos + 8;
        const size_t available = size - body;
        if (std::memcmp(chunk, "fmt ", 4) == 0) {
            if (declared < 16 || declared > available) {
                set_error(error, path + ": malformed fmt chunk");
                return {};
            }
            uint16_t format = le16(p + body);
            if (format == 0xFFFE && declared >= 40) {
                format = le16(p + body + 24);  // sub-format GUID starts with the format code
            }
            const uint16_t channels = le16(p + body + 2);
            const uint32_t rate = le32(p + body + 4);
            const uint16_t bits = le16(p + body + 14);
            if (format != 1 || channels != 1 || rate != uint32_t(kSampleRate) || bits != 16) {
                set_error(error, path + ": need 16 kHz mono 16-bit PCM, found format " +
                                     std::to_string(format) + ", " + std::to_string(channels) +
                                     " channel(s), " + std::to_string(rate) + " Hz, " +
                                     std::to_string(bits) + " bits");
                return {};
            }
            have_fmt = true;
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            if (!have_fmt) {
                set_error(error, path + ": data chunk before fmt chunk");
                return {};
            }
            const size_t length = std::min<size_t>(declared, available) & ~size_t(1);
            std::vector<int16_t> samples(length / 2);
            for (size_t i = 0; i < samples.size(); ++i) {
                samples[i] = static_cast<int16_t>(le16(p + body + 2 * i));
            }
            if (samples.empty()) {
                set_error(error, path + ": no samples");
            }
            return samples;
        }
        if (declared > available) {
            break;
        }
        pos = body + declared + (declared & 1);  // chunks are padded to even sizes
    }
    set_error(error, path + (have_fmt ? ": no data chunk" : ": no fmt chunk"));
    return {};
}

bool write_wav16k(const std::string& path, const std::vector<int16_t>& samples,
                  std::string* error) {
    const uint32_t data_bytes = static_cast<uint32_t>(samples.size() * 2);
    std::string out = "RIFF";
    put32(out, 36 + data_bytes);
    out += "WAVEfmt ";
    put32(out, 16);
    put16(out, 1);
    put16(out, 1);
    put32(out, kSampleRate);
    put32(out, kSampleRate * 2);
    put16(out, 2);
    put16(out, 16);
    out += "data";
    put32(out, data_bytes);
    for (int16_t s : samples) {
        put16(out, static_cast<uint16_t>(s));
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(out.data(), static_cast<std::streamsize>(out.size()));
    if (!file) {
        set_error(error, "cannot write " + path);
        return false;
    }
    return true;
}

}  // namespace demo
}  // namespace kiv

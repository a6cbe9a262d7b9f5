#ifndef KIV_TOOLS_SERVER_SPEECH_H
#define KIV_TOOLS_SERVER_SPEECH_H

#include <cstdint>
#include <string>
#include <vector>

namespace kiv {
namespace demo {

// Sample rate of every PCM buffer in the demo: 16 kHz, mono, signed 16-bit.
constexpr int kSampleRate = 16000;

// The voice the command grammar's feature normalisation was measured on; other espeak-ng voices
// work too but are recognised less reliably.
struct Voice {
    std::string name = "en-us+f5";
    int words_per_minute = 170;
};

// Speaks `text` with espeak-ng into a private temporary WAV file (22,050 Hz), converts it with
// sox to 16 kHz mono 16-bit, and returns the samples. Runs both programs directly (no shell);
// the text goes through a file, so it is never read as options. Safe to call from several
// threads at once (each call has its own temporary directory). On failure returns an empty
// vector and, when `error` is given, says why (a missing program, a failed conversion).
std::vector<int16_t> synthesize(const std::string& text, std::string* error = nullptr,
                                const Voice& voice = Voice());

// Reads a RIFF/WAVE file holding 16 kHz mono 16-bit PCM (format 1, or WAVE_FORMAT_EXTENSIBLE
// with the PCM sub-format). Chunks other than "fmt " and "data" are skipped. A data size that
// runs past the end of the file (as streaming writers leave it) is cut to what the file holds;
// an odd trailing byte is dropped. Any other format gives an empty vector and `error`.
std::vector<int16_t> read_wav16k(const std::string& path, std::string* error = nullptr);

// Writes `samples` as a canonical 44-byte-header 16 kHz mono 16-bit WAV file.
bool write_wav16k(const std::string& path, const std::vector<int16_t>& samples,
                  std::string* error = nullptr);

}  // namespace demo
}  // namespace kiv

#endif

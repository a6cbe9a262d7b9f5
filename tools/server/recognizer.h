#ifndef KIV_TOOLS_SERVER_RECOGNIZER_H
#define KIV_TOOLS_SERVER_RECOGNIZER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace kiv {
namespace demo {

// Where the acoustic model and the full pronunciation dictionary live (Debian's
// pocketsphinx-en-us package by default).
struct ModelPaths {
    std::string acoustic_model = "/usr/share/pocketsphinx/model/en-us/en-us";
    std::string dictionary = "/usr/share/pocketsphinx/model/en-us/cmudict-en-us.dict";
};

// The files every decoder of one server reads, written once into a private temporary
// directory: the command grammar (JSGF), a dictionary cut down to the grammar's words (a decoder
// then loads in about 12 ms instead of reading 134,000 entries), and a copy of the model's
// feat.params whose -cmninit is the mean measured on the demo's voice. The directory is removed
// when the object is destroyed, so it must outlive every Decoder made from it.
class DecoderFiles {
public:
    // Returns null and sets `error` when the model or a grammar word's pronunciation is missing.
    static std::unique_ptr<DecoderFiles> prepare(const ModelPaths& paths, std::string* error);
    ~DecoderFiles();
    DecoderFiles(const DecoderFiles&) = delete;
    DecoderFiles& operator=(const DecoderFiles&) = delete;

    const std::string& acoustic_model() const { return acoustic_model_; }
    const std::string& grammar_path() const { return grammar_path_; }
    const std::string& dictionary_path() const { return dictionary_path_; }
    const std::string& feat_params_path() const { return feat_params_path_; }

private:
    DecoderFiles() = default;
    std::string dir_;
    std::string acoustic_model_;
    std::string grammar_path_;
    std::string dictionary_path_;
    std::string feat_params_path_;
};

// One PocketSphinx decoder running one utterance after another, fed as audio arrives.
//
// A decoder is not thread-safe: one thread at a time (the session's upload). Decoders of
// different sessions run in parallel; only their construction is serialised, because the
// decoder library's set-up touches process-wide state (its logging). PocketSphinx 0.8 has no
// public way to share a loaded acoustic model between decoders, so each holds its own copy
// (about 8 MB resident).
class Decoder {
public:
    static std::unique_ptr<Decoder> create(const DecoderFiles& files, std::string* error);
    ~Decoder();
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    // Decodes 16 kHz mono samples; an utterance starts with the first call after create() or
    // end_utterance(). False on a decoder failure (the utterance is then unusable) and after
    // finish().
    bool process(const int16_t* samples, size_t count);
    // True while the voice-activity detector hears speech: partial results before speech are
    // noise and are not reported. It turns false again about half a second into a pause,
    // which is where an utterance is best ended.
    bool in_speech() const;
    // The best hypothesis of the utterance so far ("" when none).
    std::string hypothesis() const;
    // Ends the utterance and returns its final hypothesis ("" when nothing was recognised or
    // no utterance is open). Audio after it starts the next utterance; the feature
    // normalisation carries over, updated with what this one heard.
    std::string end_utterance();
    // Ends the last utterance (as end_utterance()) and the decoder's use; returns that
    // utterance's hypothesis. Later calls return the same text.
    std::string finish();
    uint64_t samples() const { return samples_; }

    // Silences (or restores) the decoder library's log, which is process-wide.
    static void set_library_log(bool enabled);

private:
    Decoder() = default;
    struct Impl;
    std::unique_ptr<Impl> impl_;
    bool in_utterance_ = false;
    bool finished_ = false;
    std::string final_;
    uint64_t samples_ = 0;
};

}  // namespace demo
}  // namespace kiv

#endif

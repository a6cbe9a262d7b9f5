#include "tools/server/recognizer.h"

#include <pocketsphinx.h>
#include <sphinxbase/err.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>

#include "tools/server/command_grammar.h"

namespace kiv {
namespace demo {

namespace {

void set_error(std::string* error, const std::string& text) {
    if (error) {
        *error = text;
    }
}

bool write_text(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

// Decoder set-up reads and writes the decoder library's process-wide state.
std::mutex& init_mutex() {
    static std::mutex m;
    return m;
}

}  // namespace

std::unique_ptr<DecoderFiles> DecoderFiles::prepare(const ModelPaths& paths, std::string* error) {
    const std::string model_params = paths.acoustic_model + "/feat.params";
    std::ifstream params_in(model_params);
    if (!params_in || access((paths.acoustic_model + "/mdef").c_str(), R_OK) != 0) {
        set_error(error, "acoustic model not found in " + paths.acoustic_model +
                             " (install pocketsphinx-en-us)");
        return nullptr;
    }
    std::ifstream dict_in(paths.dictionary);
    if (!dict_in) {
        set_error(error, "pronunciation dictionary not found: " + paths.dictionary);
        return nullptr;
    }

    // Keep every pronunciation ("word" and its variants "word(2)", ...) of the grammar's words.
    const std::set<std::string> words = command_grammar_words();
    std::set<std::string> found;
    std::string dictionary;
    std::string line;
    while (std::getline(dict_in, line)) {
        const size_t space = line.find_first_of(" \t");
        if (space == std::string::npos) {
            continue;
        }
        std::string word = line.substr(0, space);
        const size_t paren = word.find('(');
        if (paren != std::string::npos) {
            word.resize(paren);
        }
        if (words.count(word)) {
            found.insert(word);
            dictionary += line;
            dictionary += '\n';
        }
    }
    for (const std::string& w : words) {
        if (!found.count(w)) {
            set_error(error,
                      "no pronunciation for grammar word '" + w + "' in " + paths.dictionary);
            return nullptr;
        }
    }

    // The model's feature parameters, with the start-up cepstral mean replaced.
    std::string params;
    while (std::getline(params_in, line)) {
        if (line.compare(0, 8, "-cmninit") != 0) {
            params += line + '\n';
        }
    }
    params += std::string("-cmninit ") + command_voice_cmn() + '\n';

    // The program never changes its environment, so reading it is safe on any thread.
    const char* base = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe)
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/kiv-asr-XXXXXX";
    if (!mkdtemp(&pattern[0])) {
        set_error(error, std::string("cannot make a temporary directory: ") +
                             std::system_category().message(errno));
        return nullptr;
    }
    std::unique_ptr<DecoderFiles> files(new DecoderFiles);
    files->dir_ = pattern;
    files->acoustic_model_ = paths.acoustic_model;
    files->grammar_path_ = pattern + "/commands.gram";
    files->dictionary_path_ = pattern + "/commands.dict";
    files->feat_params_path_ = pattern + "/feat.params";
    if (!write_text(files->grammar_path_, command_grammar_jsgf()) ||
        !write_text(files->dictionary_path_, dictionary) ||
        !write_text(files->feat_params_path_, params)) {
        set_error(error, "cannot write the decoder files in " + pattern);
        return nullptr;  // the destructor removes what was written
    }
    return files;
}

DecoderFiles::~DecoderFiles() {
    if (dir_.empty()) {
        return;
    }
    for (const std::string* p : {&grammar_path_, &dictionary_path_, &feat_params_path_}) {
        unlink(p->c_str());
    }
    rmdir(dir_.c_str());
}

struct Decoder::Impl {
    ps_decoder_t* ps = nullptr;
    ~Impl() {
        if (ps) {
            ps_free(ps);
        }
    }
};

std::unique_ptr<Decoder> Decoder::create(const DecoderFiles& files, std::string* error) {
    std::unique_ptr<Decoder> decoder(new Decoder);
    decoder->impl_.reset(new Impl);
    std::lock_guard<std::mutex> lock(init_mutex());
    // The voice-activity detector's own end of speech, half a second of silence, is kept:
    // shorter windows split commands spoken closer together but, measured on the synthesized
    // ones, start adding words at the edges of an utterance, and end a single command inside
    // its trailing silence (before its upload ends).
    cmd_ln_t* config =
        cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", files.acoustic_model().c_str(), "-dict",
                    files.dictionary_path().c_str(), "-jsgf", files.grammar_path().c_str(),
                    "-featparams", files.feat_params_path().c_str(), nullptr);
    if (!config) {
        set_error(error, "invalid decoder configuration");
        return nullptr;
    }
    decoder->impl_->ps = ps_init(config);
    cmd_ln_free_r(config);  // the decoder keeps its own reference
    if (!decoder->impl_->ps) {
        set_error(error, "cannot load the decoder (model " + files.acoustic_model() + ")");
        return nullptr;
    }
    return decoder;
}

Decoder::~Decoder() {
    // PocketSphinx frees an utterance's search state only when the utterance ends: end an
    // abandoned one (a client that went away) before freeing the decoder, or that state leaks.
    if (impl_ && impl_->ps && in_utterance_) {
        ps_end_utt(impl_->ps);
    }
}

bool Decoder::process(const int16_t* samples, size_t count) {
    if (finished_) {
        return false;
    }
    if (!in_utterance_) {
        if (ps_start_utt(impl_->ps) < 0) {
            return false;
        }
        in_utterance_ = true;
    }
    if (count == 0) {
        return true;
    }
    samples_ += count;
    return ps_process_raw(impl_->ps, samples, count, FALSE, FALSE) >= 0;
}

bool Decoder::in_speech() const {
    return in_utterance_ && ps_get_in_speech(impl_->ps);
}

std::string Decoder::hypothesis() const {
    if (!in_utterance_) {
        return finished_ ? final_ : std::string();
    }
    int32 score = 0;
    const char* hyp = ps_get_hyp(impl_->ps, &score);
    return hyp ? hyp : "";
}

std::string Decoder::end_utterance() {
    if (!in_utterance_) {
        return std::string();
    }
    in_utterance_ = false;
    std::string text;
    if (ps_end_utt(impl_->ps) >= 0) {
        int32 score = 0;
        const char* hyp = ps_get_hyp(impl_->ps, &score);
        text = hyp ? hyp : "";
    }
    return text;
}

std::string Decoder::finish() {
    if (!finished_) {
        final_ = end_utterance();
        finished_ = true;
    }
    return final_;
}

void Decoder::set_library_log(bool enabled) {
    std::lock_guard<std::mutex> lock(init_mutex());
    err_set_logfp(enabled ? stderr : nullptr);
}

}  // namespace demo
}  // namespace kiv

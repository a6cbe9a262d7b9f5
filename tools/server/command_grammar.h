#ifndef KIV_TOOLS_SERVER_COMMAND_GRAMMAR_H
#define KIV_TOOLS_SERVER_COMMAND_GRAMMAR_H

#include <set>
#include <string>
#include <vector>

namespace kiv {
namespace demo {

// The phrases the demo speaks and the server understands: digit strings, lights in rooms,
// weather, timers and calls. A closed grammar, because synthetic speech is recognised reliably
// against it and poorly against a general language model.

// The grammar as JSGF text (grammar name "commands", public rule <command>).
const std::string& command_grammar_jsgf();

// One line per kind of command, in a readable form, for GET /v1/grammar.
const std::vector<std::string>& command_patterns();

// Sentences the grammar covers, one or more per kind; the demo's default set.
const std::vector<std::string>& example_phrases();

// Every word the grammar can produce (lower case), for building the pronunciation dictionary.
std::set<std::string> command_grammar_words();

// The cepstral mean the decoder starts from (13 comma-separated values, the `-cmninit` of
// feat.params). The acoustic model ships a mean of other recordings, and live decoding updates
// it only at the end of an utterance, so a fresh decoder's first (and here only) utterance would
// be normalised wrongly: this one was measured on espeak-ng's en-us+f5 voice at 170 words per
// minute, averaged over eleven command sentences.
const char* command_voice_cmn();

}  // namespace demo
}  // namespace kiv

#endif

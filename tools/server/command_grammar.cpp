#include "tools/server/command_grammar.h"

#include <cctype>

namespace kiv {
namespace demo {

const std::string& command_grammar_jsgf() {
    static const std::string text = R"(#JSGF V1.0;
grammar commands;

public <command> = <lights> | <weather> | <timer> | <call> | <digits>;

<digit> = zero | oh | one | two | three | four | five | six | seven | eight | nine;
<digits> = <digit>+;

<room> = kitchen | living room | bedroom | bathroom | office | garage | hallway | dining room;
<lights> = (turn (on | off) | dim | brighten) the lights [in the <room>];

<day> = today | tomorrow | tonight | this weekend
      | on (monday | tuesday | wednesday | thursday | friday | saturday | sunday);
<weather> = what is the weather [like] [<day>];

<count> = one | two | three | four | five | six | seven | eight | nine | ten
        | fifteen | twenty | thirty | forty | forty five | sixty | ninety;
<unit> = second | seconds | minute | minutes | hour | hours;
<timer> = set a timer for <count> <unit> | cancel the timer;

<contact> = mom | dad | home | work | grandma | grandpa | the office | the doctor;
<call> = call <contact>;
)";
    return text;
}

const std::vector<std::string>& command_patterns() {
    static const std::vector<std::string> patterns = {
        // NOLINTNEXTLINE(bugprone-suspicious-missing-comma): one pattern over two lines
        "(turn on | turn off | dim | brighten) the lights [in the ROOM]   ROOM: kitchen, living "
        "room, bedroom, bathroom, office, garage, hallway, dining room",
        "what is the weather [like] [today | tomorrow | tonight | this weekend | on DAY]",
        "set a timer for COUNT (second|seconds|minute|minutes|hour|hours)   COUNT: one..ten, "
        "fifteen, twenty, thirty, forty, forty five, sixty, ninety",
        "cancel the timer",
        "call (mom | dad | home | work | grandma | grandpa | the office | the doctor)",
        "DIGIT...   DIGIT: zero, oh, one..nine",
    };
    return patterns;
}

const std::vector<std::string>& example_phrases() {
    static const std::vector<std::string> phrases = {
        "turn on the lights in the kitchen",
        "what is the weather tomorrow",
        "set a timer for five minutes",
        "call mom",
        "one two three four five",
        "turn off the lights in the bedroom",
        "what is the weather like today",
        "set a timer for twenty seconds",
        "call grandma",
        "nine eight seven six",
        "dim the lights in the dining room",
        "cancel the timer",
    };
    return phrases;
}

std::set<std::string> command_grammar_words() {
    std::set<std::string> words;
    const std::string& text = command_grammar_jsgf();
    size_t line_start = 0;
    bool in_rule = false;
    while (line_start < text.size()) {
        size_t line_end = text.find('\n', line_start);
        if (line_end == std::string::npos) {
            line_end = text.size();
        }
        const std::string line = text.substr(line_start, line_end - line_start);
        line_start = line_end + 1;
        // Rule bodies follow '=' and may continue on lines that start with '|'.
        size_t body = std::string::npos;
        const size_t eq = line.find('=');
        if (eq != std::string::npos) {
            body = eq + 1;
            in_rule = true;
        } else if (in_rule && line.find('|') != std::string::npos) {
            body = 0;
        }
        if (body == std::string::npos) {
            in_rule = false;
            continue;
        }
        bool in_ref = false;
        std::string word;
        for (size_t i = body; i <= line.size(); ++i) {
            const char c = i < line.size() ? line[i] : ' ';
            if (c == '<') {
                in_ref = true;
            } else if (c == '>') {
                in_ref = false;
            } else if (!in_ref && (std::islower(static_cast<unsigned char>(c)) || c == '\'')) {
                word.push_back(c);
                continue;
            }
            if (!word.empty()) {
                words.insert(word);
                word.clear();
            }
        }
    }
    return words;
}

const char* command_voice_cmn() {
    return "59.38,-3.21,2.80,11.54,-16.80,5.56,-17.54,-4.16,-5.68,-3.08,9.58,-10.41,6.90";
}

}  // namespace demo
}  // namespace kiv
